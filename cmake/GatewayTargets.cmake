# Targets of this project: one folder is one static library with its own unit test.
#
#   gateway_library(http SOURCES httpmessage.cpp ... TESTS httpmessage_test.cpp ... DEPENDS net)
#   gateway_library(xml FAST SOURCES ...)    every request goes through it: built for speed rather than for size
#   gateway_program(upnpd SOURCES main.cpp DEPENDS core)

add_library(gateway_options INTERFACE)
target_compile_features(gateway_options INTERFACE cxx_std_20)
target_include_directories(gateway_options INTERFACE ${CMAKE_SOURCE_DIR}/src)
target_compile_options(gateway_options INTERFACE
    $<$<NOT:$<BOOL:$<TARGET_PROPERTY:GATEWAY_EXCEPTIONS>>>:-fno-exceptions> -Wall -Wextra -Wpedantic -Wconversion -Wold-style-cast -Woverloaded-virtual
    -Wnon-virtual-dtor $<$<BOOL:${GATEWAY_WERROR}>:-Werror>
    $<$<CONFIG:Release>:-ffunction-sections -fdata-sections>)
target_link_options(gateway_options INTERFACE $<$<CONFIG:Release>:-Wl,--gc-sections>)

# What is installed makes an exploit of a fault hard; tests/test_hardening.py reads it from the programs.
set(hardening -fPIE -fstack-protector-strong -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
    list(APPEND hardening -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    list(APPEND hardening -mbranch-protection=standard)
endif()
target_compile_options(gateway_options INTERFACE "$<$<CONFIG:Release>:${hardening}>")
target_compile_definitions(gateway_options INTERFACE
    $<$<CONFIG:Release>:_FORTIFY_SOURCE=3> $<$<CONFIG:Release>:_GLIBCXX_ASSERTIONS>)
target_link_options(gateway_options INTERFACE "$<$<CONFIG:Release>:-pie;-Wl,-z,relro,-z,now,-z,noexecstack>")

# What the programs use of the C++ library is a tenth of it. As a shared library it would cost each of them
# more memory for its relocated data and its touched pages than their own copy of the part does.
set(static_runtime "$<$<CONFIG:Release>:-static-libstdc++;-static-libgcc>")

if(GATEWAY_SANITIZE)
    target_compile_options(gateway_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(gateway_options INTERFACE -fsanitize=address,undefined)
endif()
if(GATEWAY_MEMORY)
    # What a library writes that is compiled without this sanitizer seems to be unset. So the C++ library is one whose
    # templates can be compiled here.
    target_compile_options(gateway_options INTERFACE
        -fsanitize=memory -fsanitize-memory-track-origins -fno-sanitize-recover=all -fno-omit-frame-pointer
        -stdlib=libc++ -D_LIBCPP_DISABLE_EXTERN_TEMPLATE "SHELL:-include ${CMAKE_SOURCE_DIR}/fuzz/memory/libcxx.h")
    target_link_options(gateway_options INTERFACE -fsanitize=memory -stdlib=libc++)
endif()
if(GATEWAY_FUZZ)
    # What the fuzzer steers by is in every object, so that the fuzz targets and the unit tests share them.
    target_compile_options(gateway_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-Og -g1")  # for the sanitizers: with assertions, and quick to build
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

# Under the sanitizers, what the fuzzer does not run a million times need not be quick. It builds in half the time so.
set(unoptimised $<$<BOOL:${GATEWAY_SANITIZE}>:-O0>)

# What every unit test includes is compiled once. Those that allow exceptions have options of their own, and go without.
if(GATEWAY_TESTS)
    add_library(gateway_test_prelude OBJECT ${CMAKE_SOURCE_DIR}/cmake/testprelude.cpp)
    target_link_libraries(gateway_test_prelude PRIVATE gateway_options GTest::gmock GTest::gtest_main)
    target_compile_options(gateway_test_prelude PRIVATE ${unoptimised})
    target_precompile_headers(gateway_test_prelude PRIVATE
        <algorithm> <functional> <map> <memory> <optional> <set> <string> <string_view> <utility> <vector> <gtest/gtest.h>)
endif()

function(gateway_library name)
    cmake_parse_arguments(ARG "FAST" "" "SOURCES;TESTS;DEPENDS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC gateway_options ${ARG_DEPENDS})
    if(ARG_FAST)
        target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O2>)
    endif()
    if(GATEWAY_TESTS AND ARG_TESTS)
        add_executable(${name}_test ${ARG_TESTS})
        target_link_libraries(${name}_test PRIVATE ${name} tk_testing GTest::gmock GTest::gtest_main)
        target_compile_options(${name}_test PRIVATE ${unoptimised})
        target_precompile_headers(${name}_test REUSE_FROM gateway_test_prelude)
        set_target_properties(${name}_test PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/test)
        add_test(NAME ${name} COMMAND ${name}_test)
    endif()
endfunction()

function(gateway_program name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE gateway_options ${ARG_DEPENDS})
    target_link_options(${name} PRIVATE ${static_runtime})
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endfunction()

# For the programs that use libraries which throw; the daemon never does. No fuzz target uses them.
function(gateway_allow_exceptions target)
    target_compile_options(${target} PRIVATE ${unoptimised})
    set_target_properties(${target} PROPERTIES GATEWAY_EXCEPTIONS ON DISABLE_PRECOMPILE_HEADERS ON)
endfunction()
