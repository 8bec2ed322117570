# utilia_module(NAME SOURCES … HEADERS … LINK … )
#
# One folder of the framework as an object library. HEADERS are the public ones: they are installed, and each is
# compiled alone to show that it includes what it needs.
function(utilia_module name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;HEADERS;LINK")
    add_library(${name} OBJECT ${arg_SOURCES})
    target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${arg_HEADERS})
    target_link_libraries(${name} PUBLIC utilia_options ${arg_LINK})
    set_target_properties(${name} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
endfunction()

# utilia_program(NAME SOURCES … LINK … [FRAMEWORK RELATIVE])
#
# A program that carries the framework's objects instead of loading the shared library (so nothing runs before its
# main). FRAMEWORK is where the framework's bundle lies, seen from the program's folder.
function(utilia_program name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "FRAMEWORK" "SOURCES;LINK")
    if(NOT arg_FRAMEWORK)
        set(arg_FRAMEWORK "../${CMAKE_INSTALL_LIBDIR}/UtiliaCommon.framework")
    endif()
    utilia_framework_location(location "${arg_FRAMEWORK}")
    add_executable(${name} ${arg_SOURCES} $<TARGET_OBJECTS:${location}>)
    target_link_libraries(${name} PRIVATE utilia_static ${arg_LINK})
endfunction()

# Where programs look for the framework, as an object library whose name `result` becomes: one for all with the same place.
function(utilia_framework_location result relative)
    string(MAKE_C_IDENTIFIER "utilia_location_${relative}" name)
    if(NOT TARGET ${name})
        add_library(${name} OBJECT "${PROJECT_SOURCE_DIR}/Common/Platform/Linux/FrameworkLocationProgram.cpp")
        target_compile_definitions(${name} PRIVATE UTILIA_FRAMEWORK_RELATIVE="${relative}")
        target_link_libraries(${name} PRIVATE utilia_options)
    endif()
    set(${result} ${name} PARENT_SCOPE)
endfunction()
