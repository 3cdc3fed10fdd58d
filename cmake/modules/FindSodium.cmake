# libsodium, as the target Sodium::sodium. Sodium_ROOT says where it is when it is not in
# the system's directories.
find_path(Sodium_INCLUDE_DIR sodium.h)
find_library(Sodium_LIBRARY sodium)
mark_as_advanced(Sodium_INCLUDE_DIR Sodium_LIBRARY)

if(Sodium_INCLUDE_DIR AND EXISTS ${Sodium_INCLUDE_DIR}/sodium/version.h)
    file(STRINGS ${Sodium_INCLUDE_DIR}/sodium/version.h Sodium_VERSION REGEX "#define SODIUM_VERSION_STRING")
    string(REGEX REPLACE ".*\"(.*)\".*" "\\1" Sodium_VERSION "${Sodium_VERSION}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Sodium
    REQUIRED_VARS Sodium_LIBRARY Sodium_INCLUDE_DIR
    VERSION_VAR Sodium_VERSION
    REASON_FAILURE_MESSAGE "The reference host proves with it who calls (Debian: apt-get install libsodium-dev)")

if(Sodium_FOUND AND NOT TARGET Sodium::sodium)
    add_library(Sodium::sodium UNKNOWN IMPORTED)
    set_target_properties(Sodium::sodium PROPERTIES
        IMPORTED_LOCATION ${Sodium_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${Sodium_INCLUDE_DIR})
endif()
