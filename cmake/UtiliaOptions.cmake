# Build options, and the compiler settings that every target of the project shares (utilia_options).

option(UTILIA_BUILD_TESTS "Build the test programs" ON)
option(UTILIA_BUILD_BENCHMARKS "Build the benchmarks" OFF)
option(UTILIA_BUILD_FUZZERS "Build the libFuzzer targets (clang)" OFF)
option(UTILIA_REPORT_UPLOAD "Upload usage reports; OFF leaves the code for it out" ON)
set(UTILIA_REPORT_HOST "reports.korvane.example" CACHE STRING
    "The host that usage reports are uploaded to by HTTPS, with :PORT where it is not 443")
option(UTILIA_UNITE_SOURCES "Compile several source files of an application at once: quicker, but hides a missing #include" OFF)
set(UTILIA_SANITIZE "" CACHE STRING "Sanitizers for everything, as -fsanitize takes them")

# It stands without quotes in a command.
if(NOT UTILIA_REPORT_HOST MATCHES "^[A-Za-z0-9][A-Za-z0-9.-]*(:[0-9]+)?$")
    message(FATAL_ERROR "UTILIA_REPORT_HOST is no name of a host: \"${UTILIA_REPORT_HOST}\"")
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# The build tree has the shape of the install tree: programs in bin/, the library and its framework bundle in lib/. Where
# an installation has another folder in its place, programs find it under that name as well.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/archive")
set(UTILIA_FRAMEWORK_DIR "${CMAKE_BINARY_DIR}/lib/UtiliaCommon.framework")
if(NOT CMAKE_INSTALL_LIBDIR STREQUAL "lib")
    set(utilia_other_name "${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR}")
    get_filename_component(utilia_other_folder "${utilia_other_name}" DIRECTORY)
    file(MAKE_DIRECTORY "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}" "${utilia_other_folder}")
    file(CREATE_LINK "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}" "${utilia_other_name}" SYMBOLIC)
endif()

# A file that was compiled in one checkout of the project is known in every other one (not so clang's with a precompiled
# header): paths below the checkout go into the cache relative to the build folder, and into debug information relative to
# the checkout.
find_program(UTILIA_CCACHE ccache)
if(UTILIA_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_SLOPPINESS=pch_defines,time_macros
        "${UTILIA_CCACHE}")
    add_compile_options("-fdebug-prefix-map=${PROJECT_SOURCE_DIR}=.")
endif()

add_library(utilia_options INTERFACE)
target_include_directories(utilia_options INTERFACE "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>")
target_compile_options(utilia_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # g++ 12 sees overlaps in optimised "text" + std::string that are none (its bug 105651).
    target_compile_options(utilia_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND UTILIA_CCACHE)
    target_compile_options(utilia_options INTERFACE -fpch-preprocess)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND UTILIA_CCACHE)
    # With the time of its headers in it, a precompiled header is another one in each build.
    target_compile_options(utilia_options INTERFACE "SHELL:-Xclang -fno-pch-timestamp")
endif()
target_compile_definitions(utilia_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2> _GLIBCXX_ASSERTIONS)
target_link_options(utilia_options INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)
if(UTILIA_SANITIZE)
    # A finding ends the program: a test that goes on behind one would pass.
    target_compile_options(utilia_options INTERFACE
        -fsanitize=${UTILIA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(utilia_options INTERFACE -fsanitize=${UTILIA_SANITIZE})
    if(UTILIA_SANITIZE MATCHES "undefined")
        # Looking at an object's type, the sanitizer opens a pipe to learn whether memory can be read; where a test
        # leaves no descriptor it so calls every object invalid.
        target_compile_options(utilia_options INTERFACE -fno-sanitize=vptr)
    endif()
endif()
