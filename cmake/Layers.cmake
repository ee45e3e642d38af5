# One static library a layer, built from every source in its folder. Includes are written from the
# project's root, so that a line shows which layer it reaches into.

add_library(scada_options INTERFACE)
target_include_directories(scada_options INTERFACE ${PROJECT_SOURCE_DIR})
# Sizes and offsets are 64-bit on the unit's 32-bit boards too.
target_compile_definitions(scada_options INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(scada_options INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion)
if(SCADA_STORAGE_WERROR)
  target_compile_options(scada_options INTERFACE -Werror)
endif()
if(SCADA_STORAGE_SANITIZE)
  target_compile_options(scada_options INTERFACE
    -fsanitize=${SCADA_STORAGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(scada_options INTERFACE -fsanitize=${SCADA_STORAGE_SANITIZE})
endif()
if(SCADA_STORAGE_COVERAGE)
  target_compile_definitions(scada_options INTERFACE SCADA_STORAGE_COVERAGE)
  target_compile_options(scada_options INTERFACE --coverage)
  target_link_options(scada_options INTERFACE --coverage)
endif()
if(SCADA_STORAGE_FUZZ)
  target_compile_options(scada_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# scada_layer(NAME LIBRARY...): the sources of this folder as library scada_NAME.
function(scada_layer name)
  file(GLOB sources CONFIGURE_DEPENDS *.cpp *.h)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  add_library(scada_${name} STATIC ${sources})
  set_target_properties(scada_${name} PROPERTIES AUTOMOC ON)
  target_link_libraries(scada_${name} PUBLIC scada_options Qt6::Core ${ARGN})
endfunction()
