#include "doctor.h"

#include <windows.h>

#include <cstdio>
#include <io.h>
#include <iostream>
#include <memory>

#include "doctor_report.h"
#include "exit_code.h"
#include "log_files.h"
#include "pin_option.h"

namespace talvik_tool {
namespace {

struct DoctorOptions {
    bool json = false;
    bool sign = false;
    std::string container;
    PinOption pin;
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

// The wanted container, or the first that signs.
std::optional<std::string> signingContainer(const DeviceFacts& devices, const std::string& wanted) {
    for (const TokenFacts& token : devices.tokens) {
        for (const ContainerFacts& container : token.containers) {
            if (wanted.empty() ? container.signs : container.name == wanted) {
                return container.name;
            }
        }
    }
    return std::nullopt;
}

std::optional<SignRequest> signRequest(const DoctorOptions& options, Diagnosis& diagnosis) {
    if (!options.sign) {
        return std::nullopt;
    }
    const auto container = signingContainer(diagnosis.devices, options.container);
    if (!container) {
        diagnosis.findings.problem("There is no such key to sign with.", "Generate one, or name another container.");
        return std::nullopt;
    }
    return SignRequest{*container, options.pin.given() ? options.pin.read() : ""};
}

Diagnosis examine(const DoctorOptions& options) {
    // A missing module is a finding here, no message box.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    const SilentOutput silent;
    ownLogFolder();
    Diagnosis diagnosis;
    diagnosis.installation = inspectInstallation(diagnosis.findings);
    diagnosis.devices = inspectDevices(diagnosis.findings);
    // A library without all operations is not for calling: what would happen is not the provider's to decide.
    if (diagnosis.devices.library.path.empty() || diagnosis.devices.operations == neededOperations()) {
        const auto request = signRequest(options, diagnosis);
        diagnosis.selfTest = runSelfTest(!diagnosis.devices.tokens.empty(), request, diagnosis.findings);
    }
    return diagnosis;
}

int diagnose(const DoctorOptions& options) {
    const Diagnosis diagnosis = examine(options);
    (options.json ? printJson : printPage)(std::cout, diagnosis);
    return diagnosis.findings.problems() == 0 ? Done : Refused;
}

}  // namespace

void addDoctorCommand(CLI::App& app, int& exitCode) {
    CLI::App* command = app.add_subcommand("doctor", "Says whether this machine can use the provider, and if not, why");
    const auto options = std::make_shared<DoctorOptions>();
    command->footer("Exit codes: 0 all is well, 1 there is a problem.");
    command->add_flag("--json", options->json, "Print JSON");
    CLI::Option* sign = command->add_flag("--sign", options->sign, "Also make a signature; asks for the PIN");
    command->add_option("--container", options->container, "Sign with the key of this container")->needs(sign);
    options->pin.addTo(*command, "pin", "PIN for --sign");
    command->callback([options, &exitCode] { exitCode = diagnose(*options); });
}

}  // namespace talvik_tool
