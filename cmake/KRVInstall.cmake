# Install folders. Libraries go to the multiarch folder, also below a prefix other than /usr. A project that contains
# this one decides for itself.
if(CMAKE_LIBRARY_ARCHITECTURE AND PROJECT_IS_TOP_LEVEL)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Folder of the libraries")
endif()
include(GNUInstallDirs)

# The library looks for the server's bundle in this folder, relative to itself.
set(KRV_INSTALL_BUNDLE ${CMAKE_INSTALL_LIBDIR}/krvqtprocessclient/KRVQuicktimeProcess.app/Contents/MacOS)

# krv_installed_rpath(TARGET FOLDER): lets the program installed in that folder find the library relative to itself, so
# that the prefix can be moved.
function(krv_installed_rpath target folder)
    file(RELATIVE_PATH library ${CMAKE_INSTALL_PREFIX}/${folder} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${library}")
endfunction()
