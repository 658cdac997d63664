# The layers of the provider, and what each may know.

# talvik_headers(TARGET SCOPE HEADER...): TARGET finds the given headers, or folders of headers, of src, and no others. It
# is given a folder of links to them instead of src itself.
function(talvik_headers target scope)
  if(CMAKE_HOST_WIN32)  # links need a right there; the check belongs to the builds elsewhere
    target_include_directories(${target} ${scope} ${PROJECT_SOURCE_DIR}/src)
    return()
  endif()
  set(view ${CMAKE_BINARY_DIR}/headers/${target})
  foreach(header IN LISTS ARGN)
    cmake_path(GET header PARENT_PATH folder)
    file(MAKE_DIRECTORY ${view}/${folder})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${header} ${view}/${header} SYMBOLIC)
  endforeach()
  target_include_directories(${target} ${scope} ${view})
endfunction()

# talvik_layer(NAME HEADERS HEADER... [USES LAYER...] SOURCES SOURCE...): a static library. It is compiled with its own
# headers and those of the layers that it uses: an #include of any other layer does not compile.
function(talvik_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "HEADERS;USES;SOURCES")
  add_library(talvik_${name} STATIC ${layer_SOURCES})
  talvik_headers(talvik_${name} PUBLIC ${layer_HEADERS})
  list(TRANSFORM layer_USES PREPEND talvik_)
  target_link_libraries(talvik_${name} PUBLIC talvik_options ${layer_USES})
  talvik_precompile(talvik_${name})
endfunction()
