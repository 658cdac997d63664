# Writes a header with the names under which the device library exports its operations: -D NM= -D LIBRARY= -D OUTPUT=
execute_process(COMMAND ${NM} ${LIBRARY} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL " T _Z[0-9]+talvik_[^\n\r]+" names "${symbols}")
list(SORT names)
list(TRANSFORM names REPLACE " T (.+)" "    \"\\1\",")
list(JOIN names "\n" names)
file(WRITE ${OUTPUT}
  "// Made by the build from the device library's import library.\n#pragma once\n\n"
  "inline constexpr const char* deviceLibraryExports[] = {\n${names}\n};\n")
