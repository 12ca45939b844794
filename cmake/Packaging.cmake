# What is installed where, and the Debian packages made of it (cpack -G DEB): `ugw` for a card, `ugw-dev` for whoever
# writes a reader of the tree, `ugw-dbg` for the symbols of the programs. scripts/package.sh drives it.
include(GNUInstallDirs)

set(UGW_MAINTAINER "UGW maintainers <maintainers@ugw.test>" CACHE STRING "Maintainer told in the packages")
set(UGW_PACKAGE_VERSION ${PROJECT_VERSION} CACHE STRING "Version of the packages")
set(packaging ${CMAKE_CURRENT_SOURCE_DIR}/packaging)
set(made ${CMAKE_CURRENT_BINARY_DIR}/packaging)
set(ugw_doc ${CMAKE_INSTALL_DATADIR}/doc/ugw)
set(ugw_dev_doc ${CMAKE_INSTALL_DATADIR}/doc/ugw-dev)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Debian's manual pages and change logs are compressed, without the time of the compression in them.
find_program(GZIP gzip)
function(install_gz source name destination component)
    add_custom_command(OUTPUT ${made}/${name}.gz
        COMMAND ${CMAKE_COMMAND} -E copy ${source} ${made}/${name}
        COMMAND ${GZIP} -9nf ${made}/${name}
        DEPENDS ${source} VERBATIM)
    add_custom_target(gz_${name} ALL DEPENDS ${made}/${name}.gz)
    install(FILES ${made}/${name}.gz DESTINATION ${destination} COMPONENT ${component})
endfunction()

# The change log in the form that Debian's tools read; it points to the one for people.
file(MAKE_DIRECTORY ${made})
string(TIMESTAMP stamp "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${packaging}/debian/changelog.in ${made}/changelog @ONLY)

# A release's programs are installed without their symbols, which a debugger finds below /usr/lib/debug by the name that
# is left in the program.
function(install_program target destination)
    if(NOT UGW_HARDEN)
        install(TARGETS ${target} RUNTIME DESTINATION ${destination} COMPONENT ugw)
        return()
    endif()
    set(program ${made}/${target})
    add_custom_command(OUTPUT ${program} ${program}.debug
        COMMAND ${CMAKE_OBJCOPY} --only-keep-debug --compress-debug-sections $<TARGET_FILE:${target}> ${program}.debug
        COMMAND ${CMAKE_OBJCOPY} --strip-unneeded -R .comment --add-gnu-debuglink=${program}.debug
                $<TARGET_FILE:${target}> ${program}
        DEPENDS ${target} VERBATIM)
    add_custom_target(split_${target} ALL DEPENDS ${program})
    install(PROGRAMS ${program} DESTINATION ${destination} COMPONENT ugw)
    install(FILES ${program}.debug DESTINATION lib/debug/usr/${destination} COMPONENT ugw-dbg)
endfunction()

install_program(UGW ${CMAKE_INSTALL_SBINDIR})
install_gz(${CMAKE_CURRENT_SOURCE_DIR}/docs/man/UGW.8 UGW.8 ${CMAKE_INSTALL_MANDIR}/man8 ugw)
if(TARGET ugwctl)
    install_program(ugwctl ${CMAKE_INSTALL_BINDIR})
    install_gz(${CMAKE_CURRENT_SOURCE_DIR}/docs/man/ugwctl.1 ugwctl.1 ${CMAKE_INSTALL_MANDIR}/man1 ugw)
endif()
# Where the service's own manager looks, whatever the prefix's library folder is called.
install(FILES ${packaging}/ugw.service DESTINATION lib/systemd/system COMPONENT ugw)
install(FILES ${packaging}/ugw.conf DESTINATION lib/tmpfiles.d COMPONENT ugw)
install(FILES ${packaging}/ugw.default DESTINATION /etc/default RENAME ugw COMPONENT ugw)
install(PROGRAMS ${packaging}/ugw.init DESTINATION ${CMAKE_INSTALL_DATADIR}/ugw/init.d RENAME S80ugw COMPONENT ugw)
install(DIRECTORY web/ DESTINATION ${CMAKE_INSTALL_DATADIR}/ugw/web COMPONENT ugw)
file(CREATE_LINK /var/log/vu.json ${made}/vu.json SYMBOLIC)
install(FILES ${made}/vu.json DESTINATION ${CMAKE_INSTALL_DATADIR}/ugw/web COMPONENT ugw)
install(FILES docs/install.md docs/troubleshooting.md docs/reading-the-tree.md docs/web.md
    DESTINATION ${ugw_doc} COMPONENT ugw)
install(FILES ${packaging}/debian/copyright DESTINATION ${ugw_doc} COMPONENT ugw)
install_gz(${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md CHANGELOG.md ${ugw_doc} ugw CHANGELOG.md.gz)
install_gz(${made}/changelog changelog ${ugw_doc} ugw changelog.gz)

# For readers: the records, and how their segment is found. None of these needs Qt.
foreach(header Common/Common.h Common/StatusBits.h Common/VirtualUPSTypes.h Common/ShmMgr.h Measure/elemDesc.h)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ugw/${folder} COMPONENT ugw-dev)
endforeach()
install(PROGRAMS docs/examples/read_tree.py DESTINATION ${ugw_dev_doc}/examples COMPONENT ugw-dev)
install(FILES docs/examples/read_tree.c DESTINATION ${ugw_dev_doc}/examples COMPONENT ugw-dev)
foreach(package ugw-dev ugw-dbg)
    install(FILES ${packaging}/debian/copyright ${made}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${package})
endforeach()

# Libraries of the daemon: worked out where they run, written down where only the compiler does.
if(CMAKE_CROSSCOMPILING)
    if(UGW_QT STREQUAL "5")
        set(ugw_depends "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libqt5core5a (>= 5.15.1), libstdc++6 (>= 11)")
    else()
        set(ugw_depends "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libqt6core6 (>= 6.4.0), libstdc++6 (>= 11)")
    endif()
    if(TARGET ugwctl)
        string(APPEND ugw_depends ", libncursesw6 (>= 6), libtinfo6 (>= 6)")
    endif()
    if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    else()
        message(FATAL_ERROR "No Debian architecture is known for ${CMAKE_LIBRARY_ARCHITECTURE}")
    endif()
    set(CPACK_DEBIAN_UGW_PACKAGE_SHLIBDEPS OFF)
    set(CPACK_DEBIAN_UGW_PACKAGE_DEPENDS ${ugw_depends})
else()
    set(CPACK_DEBIAN_UGW_PACKAGE_SHLIBDEPS ON)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ugw)
set(CPACK_PACKAGE_VERSION ${UGW_PACKAGE_VERSION})
set(CPACK_PACKAGE_CONTACT ${UGW_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL ugw ugw-dev)
if(UGW_HARDEN)
    list(APPEND CPACK_COMPONENTS_ALL ugw-dbg)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_UGW_PACKAGE_NAME ugw)
set(CPACK_DEBIAN_UGW_PACKAGE_SECTION net)
set(CPACK_COMPONENT_UGW_DESCRIPTION "gateway of a modular UPS plant
UGW runs on the network card of each cabinet of a UPS plant of up to four. It
polls the power module of its cabinet, shares a bus with the other cards, and
keeps the whole plant as a tree of records in shared memory and as a JSON
document. ugwctl shows the tree and gives commands; a page shows the document.")
set(CPACK_DEBIAN_UGW_PACKAGE_CONTROL_EXTRA
    ${packaging}/debian/conffiles ${packaging}/debian/postinst ${packaging}/debian/prerm ${packaging}/debian/postrm)
set(CPACK_DEBIAN_UGW-DEV_PACKAGE_NAME ugw-dev)
set(CPACK_DEBIAN_UGW-DEV_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_UGW-DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_UGW-DEV_PACKAGE_SUGGESTS "python3")
set(CPACK_COMPONENT_UGW-DEV_DESCRIPTION "records of a UPS plant's gateway, for readers of its tree
The headers of the records that UGW keeps in shared memory, and whole readers
of them in C and Python to start from.")

set(CPACK_DEBIAN_UGW-DBG_PACKAGE_NAME ugw-dbg)
set(CPACK_DEBIAN_UGW-DBG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_UGW-DBG_PACKAGE_DEPENDS "ugw (= ${UGW_PACKAGE_VERSION})")
set(CPACK_COMPONENT_UGW-DBG_DESCRIPTION "symbols of a UPS plant's gateway
For a debugger: the symbols of UGW and ugwctl.")
include(CPack)
