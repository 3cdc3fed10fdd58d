# The rules every target of the project is built by.

include(GNUInstallDirs)

if(CMAKE_SOURCE_DIR STREQUAL PROJECT_SOURCE_DIR)
    find_program(CCACHE_PROGRAM ccache)
    if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
        # The sloppiness that ccache needs to cache with a precompiled header.
        set(CMAKE_CXX_COMPILER_LAUNCHER
            ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${CCACHE_PROGRAM})
    endif()
endif()

set(transport_compile_options -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual)
set(transport_link_options "")
if(TRANSPORT_WARNINGS_AS_ERRORS)
    list(APPEND transport_compile_options -Werror)
endif()
if(TRANSPORT_SANITIZER)
    list(APPEND transport_compile_options -fsanitize=${TRANSPORT_SANITIZER} -fno-omit-frame-pointer)
    list(APPEND transport_link_options -fsanitize=${TRANSPORT_SANITIZER})
    if(TRANSPORT_SANITIZER MATCHES "undefined")
        list(APPEND transport_compile_options -fno-sanitize-recover=undefined)
        # Type information of the host's classes lives in another object.
        list(APPEND transport_compile_options -fno-sanitize=vptr)
    endif()
endif()
if(TRANSPORT_COVERAGE)
    # Threads and processes count in the same counters.
    list(APPEND transport_compile_options --coverage -fprofile-update=prefer-atomic)
    list(APPEND transport_link_options --coverage)
endif()
if(TRANSPORT_FUZZING)
    list(APPEND transport_compile_options -fsanitize=fuzzer-no-link)
    # Optimised, and yet with Qt's assertions.
    list(APPEND transport_compile_options -DQT_FORCE_ASSERTS)
endif()

# transport_target(<target>): warnings, sanitizers, hidden symbols, includes
# written from the root of the project.
function(transport_target target)
    target_compile_options(${target} PRIVATE ${transport_compile_options})
    target_link_options(${target} PRIVATE ${transport_link_options})
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        C_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    get_target_property(target_type ${target} TYPE)
    if(target_type STREQUAL "EXECUTABLE" OR target_type MATCHES "MODULE|SHARED")
        target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
    else()
        target_include_directories(${target} PUBLIC
            $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/transportCom>)
    endif()
endfunction()

# Qt's headers take longer to read than most sources take to compile, so they are read
# once for all targets. Every source still includes what it needs, and compiles with
# CMAKE_DISABLE_PRECOMPILE_HEADERS=ON.

# transport_precompiled_header(<name> HEADERS <header>... LINKS <library>...)
# The compiler refuses the header in a target whose flags or macros differ: what LINKS
# brings has to be in the LINKS of every target that uses it.
function(transport_precompiled_header name)
    cmake_parse_arguments(ARG "" "" "HEADERS;LINKS" ${ARGN})
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "// Stands for the precompiled header, which needs a source.\n")
    add_library(${name} OBJECT ${source})
    target_link_libraries(${name} PRIVATE ${ARG_LINKS})
    transport_target(${name})
    target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# transport_precompiled(<target> <precompiled header>)
function(transport_precompiled target header)
    target_precompile_headers(${target} REUSE_FROM ${header})
endfunction()

transport_precompiled_header(precompiled HEADERS <QtCore> LINKS Qt5::Core)

# transport_library(<name> [MOC] SOURCES <file>... LINKS <library>...): a static library.
# MOC: its headers hold Q_OBJECT.
function(transport_library name)
    cmake_parse_arguments(ARG "MOC" "" "SOURCES;LINKS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC ${ARG_LINKS})
    transport_target(${name})
    transport_precompiled(${name} precompiled)
    set_target_properties(${name} PROPERTIES AUTOMOC ${ARG_MOC})
endfunction()

if(TRANSPORT_SANITIZER STREQUAL "thread")
    # See the file: what the sanitizer cannot see inside Qt.
    add_library(tsanqt OBJECT ${PROJECT_SOURCE_DIR}/tests/support/tsanqt.cpp)
    target_link_libraries(tsanqt PRIVATE Qt5::Core)
    target_compile_options(tsanqt PRIVATE -fsanitize=thread)
endif()

# transport_program(<name> [PRECOMPILED <precompiled header>] SOURCES <file>... LINKS <library>...)
function(transport_program name)
    cmake_parse_arguments(ARG "" "PRECOMPILED" "SOURCES;LINKS" ${ARGN})
    if(NOT ARG_PRECOMPILED)
        set(ARG_PRECOMPILED precompiled)
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LINKS})
    transport_target(${name})
    transport_precompiled(${name} ${ARG_PRECOMPILED})
    if(TARGET tsanqt)
        target_sources(${name} PRIVATE $<TARGET_OBJECTS:tsanqt>)
        target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
        set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
    endif()
endfunction()

# In a release build the test programs' own sources are the greater part of the work, and
# nobody measures them; what they test keeps the release's optimisation.
set(transport_test_options $<$<CONFIG:Release>:-O1>)

# transport_test(<name> [TIMEOUT <s>] [LABELS <label>...] [ENVIRONMENT <name=value>] SOURCES <file>... LINKS <library>...)
# A GoogleTest program of which CTest runs every test in a process of its own,
# each in a fresh installation root (see tests/support/testmain.cpp).
function(transport_test name)
    cmake_parse_arguments(ARG "SERIAL" "TIMEOUT;ENVIRONMENT" "SOURCES;LINKS;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    transport_program(${name} PRECOMPILED precompiled-tests SOURCES ${ARG_SOURCES} LINKS ${ARG_LINKS} testsupport)
    target_compile_options(${name} PRIVATE ${transport_test_options})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
    set(properties TIMEOUT ${ARG_TIMEOUT})
    if(ARG_LABELS)
        list(APPEND properties LABELS "${ARG_LABELS}")
    endif()
    if(ARG_SERIAL)
        list(APPEND properties RUN_SERIAL ON)
    endif()
    if(ARG_ENVIRONMENT)
        list(APPEND properties ENVIRONMENT "${ARG_ENVIRONMENT}") # more than one would be taken apart
    endif()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
