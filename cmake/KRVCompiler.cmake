# Warnings and sanitizers for our own targets, carried by one interface target.
add_library(krv_compiler INTERFACE)
target_compile_options(krv_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
    -Wconversion -Wsign-conversion -Wformat=2 -Wimplicit-fallthrough -Wundef)
if(KRV_WARNINGS_AS_ERRORS)
    target_compile_options(krv_compiler INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(krv_compiler INTERFACE -Wshadow -Wthread-safety)
else()
    # GCC 12 reports an impossible overlap for std::string concatenation (its bug 105651).
    target_compile_options(krv_compiler INTERFACE -Wshadow=local -Wno-restrict)
endif()
if(KRV_SANITIZE)
    # Instrumentation has to reach every object and every link, so it is set globally.
    add_compile_options(-fsanitize=${KRV_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KRV_SANITIZE})
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # Instrumented code defeats GCC's analysis of what is initialised; the plain builds keep the warning.
        target_compile_options(krv_compiler INTERFACE -Wno-maybe-uninitialized)
    endif()
    if(KRV_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()
