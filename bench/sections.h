// The parts of the benchmark. Each measures and adds its rows to `rows`; a row says what it compares, in whole words,
// and what it found.
#pragma once

#include "measure.h"
#include "provider.h"

namespace talvik::bench {

// Over the virtual token.
void measureSequences(const BenchToken& token, Json& rows);
void measureBesideSystem(const BenchToken& token, Json& rows);
void measureThreads(const BenchToken& token, Json& rows);
void measureLogging(const BenchToken& token, Json& rows);

// Over a device library that does nothing but list keys.
void measureKeyCounts(const Provider& provider, Json& rows);
void measureMemory(const Provider& provider, Json& rows);

// A fresh process loads the module.
void measureLoading(const Provider& provider, Json& rows);

}  // namespace talvik::bench
