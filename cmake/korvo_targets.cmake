# Rules that hold for every target of the project.

include(GenerateExportHeader)

# Numbers are equal to the bit on every machine: no contraction into fused multiply-add, no reassociation.
# -fno-gnu-unique lets a host unload the library again.
add_library(korvo_options INTERFACE)
target_compile_options(korvo_options INTERFACE
  -ffp-contract=off
  $<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
target_include_directories(korvo_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/include)

# Our own code only: third-party sources that are compiled here keep their authors' warnings.
add_library(korvo_warnings INTERFACE)
target_compile_options(korvo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wextra-semi>
  $<$<BOOL:${KORVO_WARNINGS_AS_ERRORS}>:-Werror>)

if(KORVO_SANITIZE)
  add_compile_options(-fsanitize=${KORVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KORVO_SANITIZE})
endif()

# One layer of the library: korvo_layer(<folder> SOURCES ... [PUBLIC_HEADERS ...] [USES <layer or library> ...]).
# Makes the object library korvo_<folder>. Tests of a layer link it and what it uses and nothing else, so an
# include that points the wrong way does not link.
function(korvo_layer folder)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_HEADERS;USES" ${ARGN})
  set(target korvo_${folder})
  add_library(${target} OBJECT ${ARG_SOURCES})
  target_link_libraries(${target} PUBLIC korvo_options ${ARG_USES} PRIVATE korvo_warnings)
  foreach(header IN LISTS ARG_PUBLIC_HEADERS)
    cmake_path(GET header PARENT_PATH inner)
    install(FILES ${header}
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvo/${folder}/${inner} COMPONENT development)
  endforeach()
endfunction()
