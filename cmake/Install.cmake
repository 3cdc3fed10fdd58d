# What is installed, in three components:
#   runtime      bin/channelPlugins/: the plug-in, where hosts in bin/ look for it
#   programs     the reference host, transport-tune, the telephone exchange, and the library that gives
#                its ptys modem lines in a program that preloads it
#   development  headers, the static libraries that hosts share with the plug-in (the interfaces,
#                the channel's records, the common library), and the CMake package transportCom
#                (find_package(transportCom))

include(CMakePackageConfigHelpers)

install(TARGETS transportCom
    LIBRARY
        DESTINATION ${CMAKE_INSTALL_BINDIR}/channelPlugins
        COMPONENT runtime
        NAMELINK_SKIP)

install(TARGETS transport-host transport-tune phone-exchange ptylines-preload
    RUNTIME
        DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT programs
    LIBRARY
        DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT programs)

install(TARGETS channelapi comformats common
    EXPORT transportComTargets
    ARCHIVE
        DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT development)

set(transport_headers_dir ${CMAKE_INSTALL_INCLUDEDIR}/transportCom)
install(DIRECTORY plugin/api/
    DESTINATION ${transport_headers_dir}/plugin/api
    COMPONENT development
    FILES_MATCHING PATTERN "*.h")
# Release 1.0 had these in plugin/. Leave the forwards out one release after the move.
foreach(header IN ITEMS
        cabstractchannelsstate.h
        cabstractjournal.h
        cabstractprotocol.h
        cabstractprotocolfactory.h
        cchannel.h
        cchannelplugin.h
        cchannelserver.h
        channelapi_export.h
        comcalltexts.h
        entrypoints.h)
    set(forward ${PROJECT_BINARY_DIR}/forwards/plugin/${header})
    file(CONFIGURE OUTPUT ${forward} CONTENT
        "// Moved; this forward stays for one release.\n#pragma once\n\n#include \"plugin/api/${header}\"\n" @ONLY)
    install(FILES ${forward}
        DESTINATION ${transport_headers_dir}/plugin
        COMPONENT development)
endforeach()
install(DIRECTORY com/formats/
    DESTINATION ${transport_headers_dir}/com/formats
    COMPONENT development
    FILES_MATCHING PATTERN "*.h")
install(DIRECTORY common/
    DESTINATION ${transport_headers_dir}/common
    COMPONENT development
    FILES_MATCHING PATTERN "*.h")

set(transport_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/transportCom)
install(EXPORT transportComTargets
    NAMESPACE transportCom::
    DESTINATION ${transport_package_dir}
    COMPONENT development)
configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/transportComConfig.cmake.in
    ${PROJECT_BINARY_DIR}/transportComConfig.cmake
    INSTALL_DESTINATION ${transport_package_dir}
    PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/transportComConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
        ${PROJECT_BINARY_DIR}/transportComConfig.cmake
        ${PROJECT_BINARY_DIR}/transportComConfigVersion.cmake
    DESTINATION ${transport_package_dir}
    COMPONENT development)
