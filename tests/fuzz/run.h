// What the fuzz targets have in common. A target's input is one byte that says how long the library's script is, the
// script, and then what the target makes of the rest.
#pragma once

#include "fuzz/lying_library.h"
#include "fuzz/provider_fuzz.h"

// One run: the process as if it had just started. The library is honest until it is told to lie.
class Run {
  public:
    Run(const std::uint8_t* data, std::size_t size);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void lieFromHere() { lying::follow(script_); }

    Input input;  // what follows the script

  private:
    Input script_;
};
