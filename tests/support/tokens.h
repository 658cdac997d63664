// The surroundings of the tests over the virtual token: tokens of their own, the host's openssl, other processes; and
// the main function of their programs.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "support/bytes.h"

namespace talvik_test {

inline constexpr char pin[] = "1234";

// A folder of this run's own, shared with its roles; openssl's current directory.
const ScratchFolder& scratch();
void write(const std::string& name, const Bytes& content);
Bytes read(const std::string& name);
std::string run(const std::string& arguments);  // what openssl says; throws when it fails
bool opensslAgrees(const std::string& arguments);

// DER of a certificate, signed by somebody else, for the key in public.der.
Bytes certificateForPublicKey(const std::string& subject);

// talvik.exe, beside this program or one folder above it: its command line, and its exit code after it has run with its
// output in `output` if that is given.
std::wstring talvikCommand(const std::string& arguments);
int talvik(const std::string& arguments, const std::string& output = {});

// This program in another process, playing one of its roles; `name` tells two players of a role apart.
class Role : public ChildProcess {
  public:
    explicit Role(const std::string& role, const std::string& name = "only");
};

// Gives this program a role. What `play` gives is the exit status, unless an expectation failed meanwhile.
class PlayedRole {
  public:
    using Play = int (*)(const std::string& name);
    PlayedRole(const std::string& role, Play play);
};

// One token, and those that a test adds, in a home of its own for each test. The provider remembers by token identifier
// what it knows of a token, so the identifiers differ from test to test unless one is given.
class Tokens : public ::testing::Test {
  protected:
    explicit Tokens(const std::string& id = {});
    ~Tokens() override;
    static void addToken(const std::string& id);
    static void change(const std::string& command, const std::string& id);  // of "talvik token": "detach", ...
    const std::string& token() const { return token_; }
    const std::string& home() const { return home_; }  // in the scratch folder

  private:
    std::string home_, token_;
};

}  // namespace talvik_test
