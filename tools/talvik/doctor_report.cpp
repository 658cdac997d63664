#include "doctor_report.h"

#include <windows.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "printable.h"
#include "system_text.h"
#include "token/device_library.h"

namespace talvik_tool {
namespace {

using virtual_token::utf8;

constexpr std::size_t pageWidth = 100;
constexpr std::size_t labelWidth = 18;

// Continues long texts under their beginning. What has no blank, a path for one, is never broken.
void printWrapped(std::ostream& out, const std::string& label, const std::string& words) {
    const std::string first = printable(label), text = printable(words);
    const std::string indent(first.size(), ' ');
    std::string line = first;
    bool empty = true;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (!empty && line.size() + 1 + word.size() > pageWidth) {
            out << line << "\n";
            line = indent;
            empty = true;
        }
        line += (empty ? "" : " ") + word;
        empty = false;
        begin = end + 1;
    }
    out << line << "\n";
}

void printRow(std::ostream& out, std::string label, const std::string& text) {
    label.resize(labelWidth, ' ');
    printWrapped(out, "  " + label, text);
}

std::string describe(const ModuleFile& file) {
    if (file.path.empty()) {
        return "not found";
    }
    return file.path + ", " + (file.description.empty() ? "" : file.description + ", ") +
           (file.version.empty() ? "without version information" : "version " + file.version) +
           (file.company.empty() ? "" : " (" + file.company + ")");
}

void printInstallation(std::ostream& out, const Installation& found) {
    out << "Provider\n";
    printRow(out, "file", describe(found.provider));
    printRow(out, "loads", found.providerLoads ? "yes" : "no");
    printRow(out, "CryptoAPI entry",
             found.cspImage.empty() ? "none"
                                    : found.cspImage + ", type " + std::to_string(found.cspType) +
                                          (found.cspSigned ? "" : ", without signature"));
    printRow(out, "CNG entry",
             found.cngImage.empty() ? "none" : found.cngImage + (found.cngListed ? "" : ", not in the provider list"));
    printRow(out, "CNG functions", found.cngFaceAnswers ? "answer" : "do not answer");
    printRow(out, "log", "level " + found.logLevel + ", " + found.logFolder + "\\<program>\\<date>.LOG");
}

void printContainer(std::ostream& out, const ContainerFacts& container) {
    printWrapped(
        out, "    " + container.name + "  ",
        container.keyType + ", " + container.usage + (container.label.empty() ? "" : ", \"" + container.label + "\""));
    if (container.certificates.empty()) {
        printWrapped(out, "      ", "no certificate");
    }
    for (const CertificateFacts& certificate : container.certificates) {
        printWrapped(out, "      ",
                     "certificate " + certificate.subject + ", expires " + certificate.expires +
                         (certificate.matchesKey ? ", matches the key" : ", IS FOR ANOTHER KEY") +
                         (certificate.published ? ", in the user's store" : ""));
    }
}

void printDevices(std::ostream& out, const DeviceFacts& devices) {
    out << "Device library\n";
    printRow(out, "file", describe(devices.library));
    printRow(out, "interface",
             std::string(TALVIK_LIBRARY_VERSION) + ", " + std::to_string(devices.operations) + " of " +
                 std::to_string(neededOperations()) + " operations");
    if (!devices.inspected) {
        return;
    }
    out << "Tokens" << (devices.tokens.empty() ? ": none" : "") << "\n";
    for (const TokenFacts& token : devices.tokens) {
        printRow(out, token.id,
                 token.initStatus != 0
                     ? "cannot be initialised: status " + std::to_string(token.initStatus)
                     : "firmware " + token.firmware + ", " +
                           (token.signedOn ? "signed on: no PIN is asked" : "not signed on: the PIN is asked") +
                           ", key pairs: " + std::to_string(token.containers.size()) +
                           ", AES keys: " + std::to_string(token.aesKeys));
        for (const ContainerFacts& container : token.containers) {
            printContainer(out, container);
        }
    }
}

void printSelfTest(std::ostream& out, const std::vector<SelfTestStep>& steps) {
    std::string line;
    for (const SelfTestStep& step : steps) {
        line += (line.empty() ? "" : ", ") + step.name + (step.passed ? " passed" : " FAILED");
    }
    out << "Self-test through CryptoAPI\n";
    printRow(out, "steps", line.empty() ? "not tried" : line);
}

void printFindings(std::ostream& out, const Findings& findings) {
    for (const Finding& finding : findings.list()) {
        printWrapped(out, finding.isProblem ? "PROBLEM  " : "note     ", finding.what);
        printWrapped(out, "      -> ", finding.remedy);
    }
    const std::size_t problems = findings.problems();
    out << (problems == 0   ? "All is well."
            : problems == 1 ? "1 problem."
                            : std::to_string(problems) + " problems.")
        << "\n";
}

using Json = nlohmann::ordered_json;

Json toJson(const ModuleFile& file) {
    return {
        {"path", file.path}, {"version", file.version}, {"company", file.company}, {"description", file.description}};
}

Json toJson(const ContainerFacts& container) {
    Json certificates = Json::array();
    for (const CertificateFacts& certificate : container.certificates) {
        certificates.push_back({{"subject", certificate.subject},
                                {"expires", certificate.expires},
                                {"matchesKey", certificate.matchesKey},
                                {"published", certificate.published}});
    }
    return {{"name", container.name},
            {"keyType", container.keyType},
            {"usage", container.usage},
            {"label", container.label},
            {"certificates", certificates}};
}

Json toJson(const TokenFacts& token) {
    Json containers = Json::array();
    for (const ContainerFacts& container : token.containers) {
        containers.push_back(toJson(container));
    }
    return {{"id", token.id},
            {"firmware", token.firmware},
            {"signedOn", token.signedOn},
            {"status", token.initStatus},
            {"aesKeys", token.aesKeys},
            {"containers", containers}};
}

Json toJson(const Installation& found) {
    return {{"file", toJson(found.provider)},
            {"loads", found.providerLoads},
            {"cryptoApi", {{"image", found.cspImage}, {"type", found.cspType}, {"signed", found.cspSigned}}},
            {"cng", {{"image", found.cngImage}, {"listed", found.cngListed}, {"answers", found.cngFaceAnswers}}}};
}

// Pages travel: which machine, which user, when.
std::string circumstances() {
    std::array<wchar_t, 256> computer = {};
    auto size = static_cast<DWORD>(computer.size());
    GetComputerNameW(computer.data(), &size);
    std::array<wchar_t, 256> user = {};
    size = static_cast<DWORD>(user.size());
    GetUserNameW(user.data(), &size);
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    char time[48];
    std::snprintf(time, sizeof time, "%04u-%02u-%02u %02u:%02u", now.wYear, now.wMonth, now.wDay, now.wHour,
                  now.wMinute);
    return utf8(computer.data()) + ", " + utf8(user.data()) + ", " + time;
}

}  // namespace

void printPage(std::ostream& out, const Diagnosis& diagnosis) {
    out << "Talvik on " << printable(circumstances()) << "\n\n";
    printInstallation(out, diagnosis.installation);
    printDevices(out, diagnosis.devices);
    printSelfTest(out, diagnosis.selfTest);
    out << "\n";
    printFindings(out, diagnosis.findings);
}

void printJson(std::ostream& out, const Diagnosis& diagnosis) {
    Json findings = Json::array();
    for (const Finding& finding : diagnosis.findings.list()) {
        findings.push_back(
            {{"weight", finding.isProblem ? "problem" : "note"}, {"what", finding.what}, {"remedy", finding.remedy}});
    }
    Json tokens = Json::array();
    for (const TokenFacts& token : diagnosis.devices.tokens) {
        tokens.push_back(toJson(token));
    }
    Json steps = Json::array();
    for (const SelfTestStep& step : diagnosis.selfTest) {
        steps.push_back({{"step", step.name}, {"passed", step.passed}, {"detail", step.detail}});
    }
    const Json all = {
        {"circumstances", circumstances()},
        {"healthy", diagnosis.findings.problems() == 0},
        {"findings", findings},
        {"provider", toJson(diagnosis.installation)},
        {"deviceLibrary",
         {{"file", toJson(diagnosis.devices.library)},
          {"interface", TALVIK_LIBRARY_VERSION},
          {"operations", diagnosis.devices.operations}}},
        {"tokens", tokens},
        {"log", {{"level", diagnosis.installation.logLevel}, {"folder", diagnosis.installation.logFolder}}},
        {"selfTest", steps}};
    out << jsonText(all);
}

}  // namespace talvik_tool
