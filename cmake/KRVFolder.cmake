# Each folder of Source/ is a target that shows its own headers only: the include root of a folder is a
# directory in the build tree that holds nothing but a link to it. An include of a folder that is not among
# DEPENDS (or reached through one of them) does not build.
#
# The headers are installed, but for those that only the library itself uses, and those of folders inside the folder.
#
# krv_source_folder(NAME SOURCES ... [INTERNAL headers...] [DEPENDS folder...] [PRIVATE libs...] [PUBLIC libs...])
function(krv_source_folder name)
    cmake_parse_arguments(ARG "" "" "SOURCES;INTERNAL;DEPENDS;PRIVATE;PUBLIC" ${ARGN})
    set(root ${CMAKE_BINARY_DIR}/include/${name})
    file(MAKE_DIRECTORY ${root}/KRVQTProcessClient)
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/KRVQTProcessClient/${name} SYMBOLIC)
    if(ARG_SOURCES)
        add_library(krv_${name} STATIC ${ARG_SOURCES})
        set(scope PUBLIC)
        target_link_libraries(krv_${name} PRIVATE krv_compiler ${ARG_PRIVATE} PUBLIC ${ARG_PUBLIC})
    else()
        add_library(krv_${name} INTERFACE)
        set(scope INTERFACE)
        target_link_libraries(krv_${name} INTERFACE ${ARG_PUBLIC})
    endif()
    target_include_directories(krv_${name} ${scope} ${root})
    foreach(folder IN LISTS ARG_DEPENDS)
        target_link_libraries(krv_${name} ${scope} krv_${folder})
    endforeach()
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    if(ARG_INTERNAL)
        list(REMOVE_ITEM headers ${ARG_INTERNAL})
    endif()
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KRVQTProcessClient/${name} COMPONENT Headers)
endfunction()
