// Recorded behaviour. A test says which calls it makes; what each answered, left behind, logged and asked of the token
// is compared with what stands in tests/unit/recorded/<suite>.txt, which the same tests have written on a reviewed
// tree.
//
// One line a call: its name, what it answered, left behind and changed, windows, log lines ("!" before an ERROR),
// device calls. Calls that differ in a few words share a line, those in a row and, where it stays short, later ones:
//
//     CPHashData without {1, 2} = FALSE {NTE_BAD_UID, NTE_BAD_HASH} | CPHashData | !CPHashData: {a, b} is null
#pragma once

#include <map>
#include <source_location>
#include <string>

namespace recording {

struct Entry {
    std::string name, outcome;
    std::source_location where;
};
void add(Entry entry);

// At the end of a test: compares its entries with the record. The first that differs fails the test.
void close();

// At the end of the program: writes what this run has seen over the records of the tests that ran. Only with
// TALVIK_RECORD set.
void save();

// "NTE_BAD_HASH" for the codes that the provider uses, eight hex digits for others.
std::string codeName(unsigned long code);

// Log lines and device calls as they are recorded: every word that is a name's key by that name, long hexadecimal
// shortened, what many calls log alike by a word of its own.
std::string readable(const std::string& text, const std::map<std::string, std::string>& names);

// Of more than 24 bytes in hexadecimal the first six and the last four, their number and a checksum; of equal ones the
// byte and their number.
std::string shortened(const std::string& hex);

}  // namespace recording
