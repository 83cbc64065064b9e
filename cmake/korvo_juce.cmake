# juce_core, compiled once. JUCE's CMake modules compile their sources into every target that links them; the
# static library keeps that to one place, and what it was compiled with follows to those who include its headers.

find_package(JUCE CONFIG REQUIRED)

add_library(korvo_juce STATIC)
target_link_libraries(korvo_juce PRIVATE korvo_options juce::juce_core)
target_compile_definitions(korvo_juce
  PUBLIC JUCE_USE_CURL=0 JUCE_STANDALONE_APPLICATION=0 JUCE_GLOBAL_MODULE_SETTINGS_INCLUDED=1
         $<IF:$<CONFIG:Debug>,DEBUG=1,NDEBUG=1>
  INTERFACE $<TARGET_PROPERTY:korvo_juce,COMPILE_DEFINITIONS>)
target_include_directories(korvo_juce SYSTEM
  INTERFACE $<TARGET_PROPERTY:juce::juce_core,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_options(korvo_juce PRIVATE -w)
find_package(Threads REQUIRED)
target_link_libraries(korvo_juce PUBLIC Threads::Threads ${CMAKE_DL_LIBS})
