# Most of what compiling costs here is reading the system's and the library's headers. They are read once for all targets
# that are compiled alike, and once more with GoogleTest for the test programs.
#
# Not for the programs: optimised, they meet warnings inside the library's own headers that GCC holds back where these are
# read from their files (array bounds, of a text of one character).
#
# What is precompiled is a matter of speed alone: every source still includes what it uses, which scripts/lint sees to,
# since it compiles without.
set(talvik_system_headers
  <windows.h> <wincrypt.h> <ncrypt.h>
  <algorithm> <array> <cstdint> <cstring> <functional> <map> <memory> <mutex> <optional> <ranges> <span> <string>
  <string_view> <utility> <vector>)

# talvik_precompile(TARGET [WITH HEADER...]): the first target of a kind makes it, those that follow take it over. A kind
# is named by `OF`, "system" unless told otherwise.
function(talvik_precompile target)
  cmake_parse_arguments(PARSE_ARGV 1 precompile "" "OF" "WITH")
  if(NOT precompile_OF)
    set(precompile_OF system)
  endif()
  get_property(maker GLOBAL PROPERTY talvik_precompiled_${precompile_OF})
  if(maker)
    target_precompile_headers(${target} REUSE_FROM ${maker})
  else()
    target_precompile_headers(${target} PRIVATE ${talvik_system_headers} ${precompile_WITH})
    set_property(GLOBAL PROPERTY talvik_precompiled_${precompile_OF} ${target})
  endif()
endfunction()
