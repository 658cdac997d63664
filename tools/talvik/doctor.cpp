#include "doctor.h"

#include <windows.h>

#include <iostream>
#include <memory>

#include "doctor_report.h"
#include "exit_code.h"
#include "pin_option.h"

namespace talvik_tool {
namespace {

struct DoctorOptions {
    bool json = false;
    bool sign = false;
    std::string container;
    PinOption pin;
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

int diagnose(const DoctorOptions& options) {
    // A missing module is a finding here, no message box.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    Diagnosis diagnosis;
    diagnosis.installation = inspectInstallation(diagnosis.findings);
    diagnosis.devices = inspectDevices(diagnosis.findings);
    const auto request = signRequest(options, diagnosis);
    diagnosis.selfTest = runSelfTest(!diagnosis.devices.tokens.empty(), request, diagnosis.findings);
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
