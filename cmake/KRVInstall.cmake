# Install folders. Libraries go to the multiarch folder, also below a prefix other than /usr. A project that contains
# this one decides for itself. What is given on the command line is left alone: set() would turn a relative folder of no
# type into an absolute one.
if(CMAKE_LIBRARY_ARCHITECTURE AND PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Folder of the libraries")
endif()
if(PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_INSTALL_DOCDIR)
    set(CMAKE_INSTALL_DOCDIR share/doc/krvqtprocessclient CACHE PATH "Folder of the licence")
endif()
include(GNUInstallDirs)

# The library looks for the server's bundle in this folder, relative to itself.
set(KRV_INSTALL_BUNDLE ${CMAKE_INSTALL_LIBDIR}/krvqtprocessclient/KRVQuicktimeProcess.app/Contents/MacOS)

# krv_installed_rpath(TARGET FOLDER): lets the program installed in that folder find the library relative to itself, so
# that the prefix can be moved. CMAKE_SKIP_INSTALL_RPATH leaves this out, for a package whose library is in a folder
# that the loader searches anyway.
function(krv_installed_rpath target folder)
    # Each of the two may be absolute.
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
    file(RELATIVE_PATH library ${folder} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${library}")
endfunction()
