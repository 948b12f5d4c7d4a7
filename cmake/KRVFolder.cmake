# The folder list is the architecture, and CMake enforces it. Each folder is a target that exposes its own headers only,
# so an include against an arrow does not build.

# krv_link_headers(DIRECTORY [headers...]): fills DIRECTORY with links to these headers of the current source folder, by
# default all of them except those in subfolders, and removes other links.
function(krv_link_headers directory)
    set(headers ${ARGN})
    if(NOT headers)
        file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    endif()
    if(IS_SYMLINK ${directory})
        file(REMOVE ${directory})
    endif()
    file(MAKE_DIRECTORY ${directory})
    file(GLOB present RELATIVE ${directory} ${directory}/*.h)
    foreach(header IN LISTS present)
        if(NOT header IN_LIST headers)
            file(REMOVE ${directory}/${header})
        endif()
    endforeach()
    foreach(header IN LISTS headers)
        if(NOT EXISTS ${directory}/${header})
            file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${directory}/${header} SYMBOLIC)
        endif()
    endforeach()
endfunction()

# A room of the media server: the target krv_server_NAME with the headers <MediaServer/PATH/...>, where PATH is the
# folder below MediaServer/. DEPENDS names other rooms.
#
# krv_server_folder(NAME SOURCES ... [DEPENDS room...] [PRIVATE libs...] [PUBLIC libs...])
function(krv_server_folder name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE;PUBLIC" ${ARGN})
    file(RELATIVE_PATH path ${PROJECT_SOURCE_DIR}/MediaServer ${CMAKE_CURRENT_SOURCE_DIR})
    set(root ${PROJECT_BINARY_DIR}/include/MediaServer-${name})
    krv_link_headers(${root}/MediaServer/${path})
    add_library(krv_server_${name} STATIC ${ARG_SOURCES})
    target_include_directories(krv_server_${name} PUBLIC ${root})
    target_link_libraries(krv_server_${name} PRIVATE krv_compiler ${ARG_PRIVATE} PUBLIC ${ARG_PUBLIC})
    foreach(room IN LISTS ARG_DEPENDS)
        target_link_libraries(krv_server_${name} PUBLIC krv_server_${room})
    endforeach()
endfunction()

# A folder of Source/: the target krv_NAME with the headers <KRVQTProcessClient/NAME/...>. An include of a folder that is
# not among DEPENDS (or reached through one of them) does not build. Headers in subfolders belong to krv_inner_folder.
#
# The headers are installed, except INTERNAL ones, which only the library itself uses.
#
# krv_source_folder(NAME SOURCES ... [INTERNAL headers...] [DEPENDS folder...] [PRIVATE libs...] [PUBLIC libs...])
function(krv_source_folder name)
    cmake_parse_arguments(ARG "" "" "SOURCES;INTERNAL;DEPENDS;PRIVATE;PUBLIC" ${ARGN})
    set(root ${PROJECT_BINARY_DIR}/include/${name})
    krv_link_headers(${root}/KRVQTProcessClient/${name})
    add_library(krv_${name} STATIC ${ARG_SOURCES})
    target_include_directories(krv_${name} PUBLIC ${root})
    target_link_libraries(krv_${name} PRIVATE krv_compiler ${ARG_PRIVATE} PUBLIC ${ARG_PUBLIC})
    foreach(folder IN LISTS ARG_DEPENDS)
        target_link_libraries(krv_${name} PUBLIC krv_${folder})
    endforeach()
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    if(ARG_INTERNAL)
        list(REMOVE_ITEM headers ${ARG_INTERNAL})
    endif()
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KRVQTProcessClient/${name} COMPONENT Headers)
endfunction()

# A folder inside a folder of Source/: the target krv_NAME with the headers of the current source folder, which only
# targets that link it can include and which are not installed. Without SOURCES it is the headers alone.
#
# krv_inner_folder(NAME [SOURCES ...] [PRIVATE libs...] [PUBLIC libs...])
function(krv_inner_folder name)
    cmake_parse_arguments(ARG "" "" "SOURCES;PRIVATE;PUBLIC" ${ARGN})
    file(RELATIVE_PATH path ${PROJECT_SOURCE_DIR}/Source ${CMAKE_CURRENT_SOURCE_DIR})
    set(root ${PROJECT_BINARY_DIR}/include/${name})
    krv_link_headers(${root}/KRVQTProcessClient/${path})
    if(ARG_SOURCES)
        add_library(krv_${name} STATIC ${ARG_SOURCES})
        target_include_directories(krv_${name} PUBLIC ${root})
        target_link_libraries(krv_${name} PRIVATE krv_compiler ${ARG_PRIVATE} PUBLIC ${ARG_PUBLIC})
    else()
        add_library(krv_${name} INTERFACE)
        target_include_directories(krv_${name} INTERFACE ${root})
        target_link_libraries(krv_${name} INTERFACE ${ARG_PUBLIC})
    endif()
endfunction()
