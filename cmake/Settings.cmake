# Compiler settings that every target shares, carried by one interface target.
include(CheckPIESupported)
check_pie_supported()

add_library(zendrel_settings INTERFACE)
target_include_directories(zendrel_settings INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(zendrel_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${ZENDREL_WERROR}>:-Werror>)

# Path rules of version 3: a trailing separator is a "." element, and appending an absolute path
# appends its text. From Boost 1.77 on the version has to be asked for.
target_compile_definitions(zendrel_settings INTERFACE BOOST_FILESYSTEM_VERSION=3)

if(ZENDREL_SANITIZE)
    # The checks confuse the compiler's analysis of library headers; the release build has it.
    target_compile_options(zendrel_settings INTERFACE
        -Wno-maybe-uninitialized
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zendrel_settings INTERFACE -fsanitize=address,undefined)
else()
    # The program runs as root on machines full of other people's sites.
    target_compile_options(zendrel_settings INTERFACE -fstack-protector-strong)
    target_compile_definitions(zendrel_settings INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
    target_link_options(zendrel_settings INTERFACE -Wl,-z,relro,-z,now)
endif()
