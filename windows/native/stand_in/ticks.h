// The system clock of this stand-in, for the parts that let time pass.
#pragma once

// The next tick comes at once. Writing a registry value takes longer on a system than a program could notice here.
void letTheClockTick() noexcept;
