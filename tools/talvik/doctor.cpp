#include "doctor.h"

#include <windows.h>

#include <cstdio>
#include <io.h>
#include <iostream>
#include <memory>

#include "device.h"
#include "doctor_report.h"
#include "exit_code.h"
#include "log_files.h"
#include "pin_option.h"
#include "status.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::TokenError;

struct DoctorOptions {
    bool json = false;
    bool sign = false;
    bool installationOnly = false;
    std::string container;
    PinOption pin;
};

struct SigningKey {
    const TokenFacts& token;
    std::string container;
};

// The provider writes to the standard output when it cannot log; that is no part of the page.
class SilentOutput {
  public:
    SilentOutput() : kept_(_dup(standardOutput)), nowhere_(std::fopen("NUL", "w")) {
        if (nowhere_ != nullptr) {
            _dup2(_fileno(nowhere_), standardOutput);
        }
    }
    ~SilentOutput() {
        std::fflush(stdout);
        _dup2(kept_, standardOutput);
        _close(kept_);
        if (nowhere_ != nullptr) {
            std::fclose(nowhere_);
        }
    }
    SilentOutput(const SilentOutput&) = delete;
    SilentOutput& operator=(const SilentOutput&) = delete;

  private:
    static constexpr int standardOutput = 1;
    int kept_;
    std::FILE* nowhere_;
};

// The wanted container, or the first that signs, and its token.
std::optional<SigningKey> signingKey(const DeviceFacts& devices, const std::string& wanted) {
    for (const TokenFacts& token : devices.tokens) {
        for (const ContainerFacts& container : token.containers) {
            if (wanted.empty() ? container.signs : container.name == wanted) {
                return SigningKey{token, container.name};
            }
        }
    }
    return std::nullopt;
}

const char* remedyFor(Status status) {
    switch (status) {
        case Status::PinLocked:
            return "Unblock it with the token maker's software; virtual token: talvik token unblock";
        case Status::TimeMismatch:
            return "Correct the computer's clock, then log in once with the token maker's software; virtual token: "
                   "talvik token clock ok";
        default:
            return "Try again with the right PIN, before it locks.";
    }
}

// The token itself says what is wrong with a PIN; the provider would only say that the signature failed.
bool acceptsPin(const std::string& token, const std::string& pin, Findings& findings) {
    try {
        Device(token).login(pin);
        return true;
    } catch (const TokenError& error) {
        findings.problem(error.what(), remedyFor(error.status()));
        return false;
    }
}

std::optional<SignRequest> signRequest(const DoctorOptions& options, Diagnosis& diagnosis) {
    if (!options.sign) {
        return std::nullopt;
    }
    const auto key = signingKey(diagnosis.devices, options.container);
    if (!key) {
        diagnosis.findings.problem("There is no such key to sign with.",
                                   "Generate one (talvik key generate), or name another container.");
        return std::nullopt;
    }
    const std::string pin = options.pin.given() ? options.pin.read() : "";
    if (key->token.takesNoPin || (!pin.empty() && !acceptsPin(key->token.id, pin, diagnosis.findings))) {
        return std::nullopt;
    }
    return SignRequest{key->container, pin};
}

Diagnosis examine(const DoctorOptions& options) {
    // A missing module is a finding here, no message box.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    const SilentOutput silent;
    ownLogFolder();
    Diagnosis diagnosis;
    diagnosis.installation = inspectInstallation(diagnosis.findings);
    diagnosis.devices = inspectDevices(!options.installationOnly, diagnosis.findings);
    // A library without all operations is not for calling: what would happen is not the provider's to decide.
    if (diagnosis.devices.library.path.empty() || diagnosis.devices.operations == neededOperations()) {
        const auto request = signRequest(options, diagnosis);
        diagnosis.selfTest = runSelfTest(!diagnosis.devices.tokens.empty(), request, diagnosis.findings);
    }
    return diagnosis;
}

int diagnose(const DoctorOptions& options) {
    const Diagnosis diagnosis = examine(options);
    if (options.json) {
        printJson(std::cout, diagnosis);
    } else {
        printPage(std::cout, diagnosis);
    }
    return diagnosis.findings.problems() == 0 ? Done : Refused;
}

}  // namespace

void addDoctorCommand(CLI::App& app, int& exitCode) {
    CLI::App* command = app.add_subcommand("doctor", "Says whether this machine can use the provider, and if not, why");
    const auto options = std::make_shared<DoctorOptions>();
    command->footer("Exit codes: 0 all is well, 1 there is a problem.");
    command->add_flag("--json", options->json, "Print JSON");
    CLI::Option* installation = command->add_flag("--installation", options->installationOnly,
                                                  "Judge the machine alone, without its tokens: the health of a fleet");
    CLI::Option* sign = command->add_flag("--sign", options->sign, "Also make a signature; asks for the PIN");
    sign->excludes(installation);
    command->add_option("--container", options->container, "Sign with the key of this container")->needs(sign);
    options->pin.addTo(*command, "pin", "PIN for --sign");
    command->callback([options, &exitCode] { exitCode = diagnose(*options); });
}

}  // namespace talvik_tool
