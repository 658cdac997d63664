// What "talvik doctor" prints: a page for people, or JSON for scripts.
#pragma once

#include <ostream>

#include "doctor_device.h"
#include "doctor_findings.h"
#include "doctor_selftest.h"
#include "doctor_system.h"

namespace talvik_tool {

struct Diagnosis {
    Installation installation;
    DeviceFacts devices;
    std::vector<SelfTestStep> selfTest;
    Findings findings;
};

void printPage(std::ostream& out, const Diagnosis& diagnosis);
void printJson(std::ostream& out, const Diagnosis& diagnosis);

}  // namespace talvik_tool
