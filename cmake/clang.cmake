# This machine's own clang, in the version that the packages of this project name.
find_program(TALVIK_CLANG NAMES clang-16 clang-19 clang REQUIRED)
find_program(TALVIK_CLANGXX NAMES clang++-16 clang++-19 clang++ REQUIRED)
set(CMAKE_C_COMPILER ${TALVIK_CLANG})
set(CMAKE_CXX_COMPILER ${TALVIK_CLANGXX})
