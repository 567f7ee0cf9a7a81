# Compiler settings that every target shares, carried by one interface target.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)
check_pie_supported()

add_library(zendrel_settings INTERFACE)
target_include_directories(zendrel_settings INTERFACE ${PROJECT_SOURCE_DIR})
# GCC's -Wconversion leaves signs alone, and so should clang's.
target_compile_options(zendrel_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion -Wshadow
    $<$<BOOL:${ZENDREL_WERROR}>:-Werror>)
if(ZENDREL_FUZZ)  # clang++ has a warning more under the same name
    target_compile_options(zendrel_settings INTERFACE
        -Wno-sign-conversion -fsanitize=fuzzer-no-link)
endif()

# Path rules of version 3: a trailing separator is a "." element, and appending an absolute path
# appends its text. From Boost 1.77 on the version has to be asked for.
target_compile_definitions(zendrel_settings INTERFACE BOOST_FILESYSTEM_VERSION=3)

# Files beyond 2 GB and times after 2037 on machines of 32 bits too.
target_compile_definitions(zendrel_settings INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(ZENDREL_SANITIZE)
    # The checks confuse the compiler's analysis of library headers; the release build has it.
    target_compile_options(zendrel_settings INTERFACE
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
        -fsanitize=${ZENDREL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zendrel_settings INTERFACE -fsanitize=${ZENDREL_SANITIZE})
else()
    # The program runs as root on machines full of other people's sites.
    check_cxx_compiler_flag(-fstack-clash-protection ZENDREL_HAS_STACK_CLASH_PROTECTION)
    check_cxx_compiler_flag(-fcf-protection ZENDREL_HAS_CF_PROTECTION)  # not on every architecture
    target_compile_options(zendrel_settings INTERFACE -fstack-protector-strong
        $<$<BOOL:${ZENDREL_HAS_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>
        $<$<BOOL:${ZENDREL_HAS_CF_PROTECTION}>:-fcf-protection>)
    target_compile_definitions(zendrel_settings INTERFACE _GLIBCXX_ASSERTIONS)

    # Both compiler and C library have to know level 3; its headers tell what came of it. Some
    # compilers set a level of their own, which must not be redefined.
    set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
    check_cxx_source_compiles("#include <cstdlib>
        static_assert(__USE_FORTIFY_LEVEL >= 3); int main() {}" ZENDREL_HAS_FORTIFY_3)
    unset(CMAKE_REQUIRED_FLAGS)
    set(level $<IF:$<BOOL:${ZENDREL_HAS_FORTIFY_3}>,3,2>)
    target_compile_options(zendrel_settings INTERFACE
        "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${level}>")
    target_link_options(zendrel_settings INTERFACE -Wl,-z,relro,-z,now)
endif()
