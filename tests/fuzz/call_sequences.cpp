// Sequences of calls on both faces, over a library that lies as soon as the first handles are open.
#include "fuzz/run.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    callInAnyOrder(run.input, [&] { run.lieFromHere(); });
    return 0;
}
