# What every binary of this project is compiled and linked with.

# talvik_options: warnings, the Windows version, hardening, and bytes that depend on the sources alone. Link it to every own
# target.
add_library(talvik_options INTERFACE)
target_compile_definitions(talvik_options INTERFACE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
if(MSVC)
  # The C runtime is linked as a DLL: blocks of memory cross between the provider and the device library.
  target_compile_options(talvik_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:/W4 /permissive- /utf-8 /Zc:__cplusplus /Zc:preprocessor /EHsc /GS /guard:cf /Brepro>)
  target_compile_definitions(talvik_options INTERFACE _CRT_SECURE_NO_WARNINGS)
  target_link_options(talvik_options INTERFACE
    /DYNAMICBASE /HIGHENTROPYVA /NXCOMPAT /GUARD:CF /Brepro /INCREMENTAL:NO)
else()
  target_compile_options(talvik_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -fstack-protector-strong>)
  # All runtimes are linked in: a provider that is loaded into other people's processes must not depend on
  # which libstdc++ or winpthreads happens to be on their path.
  target_link_options(talvik_options INTERFACE
    -static -fstack-protector-strong
    -Wl,--dynamicbase,--high-entropy-va,--nxcompat,--no-insert-timestamp
    $<$<CONFIG:Release>:-s>)
endif()

# Header-only libraries of the build machine, reached through a folder of links: adding /usr/include itself to a
# cross-build would bring in the build machine's C library.
function(talvik_host_headers target)
  foreach(package IN LISTS ARGN)
    set(link ${CMAKE_BINARY_DIR}/host-headers/${package}/${package})
    if(NOT EXISTS ${link})
      file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/host-headers/${package})
      file(CREATE_LINK /usr/include/${package} ${link} SYMBOLIC)
    endif()
    target_include_directories(${target} SYSTEM PRIVATE ${CMAKE_BINARY_DIR}/host-headers/${package})
    # Their assertions hold the names of their files: not those of this build folder.
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${CMAKE_BINARY_DIR}/host-headers/${package}/=)
  endforeach()
endfunction()
