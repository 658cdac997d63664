# Makes an import library of a system DLL that is loaded when one of its functions is first called, which is after main
# has kept the search for DLLs to the system folder: -D NM= -D DLLTOOL= -D COMPILER= -D DLL= -D OUTPUT=
execute_process(COMMAND ${COMPILER} -print-file-name=lib${DLL}.a
  OUTPUT_VARIABLE library OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${NM} ${library} OUTPUT_VARIABLE symbols ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL " T [A-Za-z][A-Za-z0-9]*" names "${symbols}")
list(TRANSFORM names REPLACE " T " "")
list(REMOVE_DUPLICATES names)
list(JOIN names "\n" names)
file(WRITE ${OUTPUT}.def "LIBRARY \"${DLL}.dll\"\nEXPORTS\n${names}\n")
execute_process(COMMAND ${DLLTOOL} -k -d ${OUTPUT}.def --output-delaylib ${OUTPUT} COMMAND_ERROR_IS_FATAL ANY)
