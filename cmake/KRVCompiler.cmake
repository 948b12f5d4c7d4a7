# Warnings and sanitizers for our own targets, as one interface target.
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
    # GCC 12 reports an impossible overlap in std::string concatenation (GCC bug 105651).
    target_compile_options(krv_compiler INTERFACE -Wshadow=local -Wno-restrict)
endif()
if(KRV_SANITIZE)
    # Set globally, because every object and every link needs instrumentation.
    add_compile_options(-fsanitize=${KRV_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KRV_SANITIZE})
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # Instrumentation defeats GCC's analysis of initialisation. The other builds keep the warning.
        target_compile_options(krv_compiler INTERFACE -Wno-maybe-uninitialized)
    endif()
    if(KRV_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()
