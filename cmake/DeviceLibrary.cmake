# The device library that the provider is linked to where the virtual token is not built: TALVIK_DEVICE_LIBRARY, or else the
# scripted one of the tests. Whichever it is, the provider loads TalvikDSCLibrary.dll by name when it starts.
set(TALVIK_DEVICE_LIBRARY "" CACHE FILEPATH "The token maker's TalvikDSCLibrary.dll, built with this very compiler")
if(NOT TALVIK_DEVICE_LIBRARY)
  add_library(TalvikDSCLibrary INTERFACE)
  target_link_libraries(TalvikDSCLibrary INTERFACE scripted_device_library)
  return()
endif()

add_library(TalvikDSCLibrary SHARED IMPORTED GLOBAL)
if(MSVC)
  set(import_library ${CMAKE_BINARY_DIR}/lib/TalvikDSCLibrary.lib)
  execute_process(COMMAND powershell -ExecutionPolicy Bypass -File ${PROJECT_SOURCE_DIR}/scripts/import-library.ps1
    ${TALVIK_DEVICE_LIBRARY} ${import_library} COMMAND_ERROR_IS_FATAL ANY)
else()
  set(import_library ${TALVIK_DEVICE_LIBRARY})  # GNU ld links to the DLL itself
endif()
set_target_properties(TalvikDSCLibrary PROPERTIES
  IMPORTED_LOCATION ${TALVIK_DEVICE_LIBRARY} IMPORTED_IMPLIB ${import_library})
