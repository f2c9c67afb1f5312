# Switches of the build and the flags that hold for every target.

# As a part of another project it is the library and the compiler of schemas alone, and what concerns
# all of a build is the other project's: its build type, its warnings, what is tested and installed.
option( IPSTATE_PROGRAMS "Build the programs (needs libmnl, CLI11 and nlohmann-json)"
        ${PROJECT_IS_TOP_LEVEL} )
option( IPSTATE_NATS "Build ipstate-nats (needs libnats)" ${IPSTATE_PROGRAMS} )
option( IPSTATE_TESTS "Build the tests (needs GoogleTest)" ${PROJECT_IS_TOP_LEVEL} )
option( IPSTATE_EXAMPLES "Build the examples (one needs libevent)" ${IPSTATE_TESTS} )
option( IPSTATE_INSTALL "Install the library, what builds on it needs, and the programs"
        ${PROJECT_IS_TOP_LEVEL} )
option( IPSTATE_BENCH "Configure the benchmarks, built by the target bench" OFF )
option( IPSTATE_FUZZ "Build the fuzzers (clang with a sanitizer only)" OFF )
option( IPSTATE_WERROR "Treat warnings as errors" OFF )
option( IPSTATE_HARDENED "Fortify, protect the stack and the tables of the linker"
        ${PROJECT_IS_TOP_LEVEL} )
set( IPSTATE_SANITIZE "" CACHE STRING "Sanitizers, as in address,undefined" )
option( IPSTATE_COVERAGE "Count executed lines" OFF )
set( IPSTATE_ZEKC "" CACHE FILEPATH
     "A compiler of schemas that runs here, where what is built does not" )

if( PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES )
   set( CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release or RelWithDebInfo" FORCE )
endif()

# Ends with this folder and those below it.
set( CMAKE_CXX_STANDARD 20 )
set( CMAKE_CXX_STANDARD_REQUIRED ON )
set( CMAKE_CXX_EXTENSIONS OFF )
set( CMAKE_CXX_VISIBILITY_PRESET hidden )
set( CMAKE_VISIBILITY_INLINES_HIDDEN ON )
set( CMAKE_POSITION_INDEPENDENT_CODE ON )

if( PROJECT_IS_TOP_LEVEL )
   set( CMAKE_EXPORT_COMPILE_COMMANDS ON )
   add_compile_options( -Wall -Wextra -Wpedantic )
   if( CMAKE_CXX_COMPILER_ID MATCHES Clang )
      # g++ has it take function parameters for members, too.
      add_compile_options( -Wshadow )
   endif()
endif()
if( IPSTATE_WERROR )
   add_compile_options( -Werror )
endif()

set( IPSTATE_INSTRUMENTED FALSE )
if( IPSTATE_SANITIZE )
   set( IPSTATE_INSTRUMENTED TRUE )
   add_compile_options( -fsanitize=${IPSTATE_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer )
   add_link_options( -fsanitize=${IPSTATE_SANITIZE} )
endif()
if( IPSTATE_COVERAGE )
   set( IPSTATE_INSTRUMENTED TRUE )
   add_compile_options( --coverage )
   add_link_options( --coverage )
endif()

if( IPSTATE_HARDENED AND NOT IPSTATE_INSTRUMENTED )
   include( IpstateHardening )
endif()

find_program( IPSTATE_CCACHE ccache )
if( IPSTATE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER )
   set( CMAKE_CXX_COMPILER_LAUNCHER "${IPSTATE_CCACHE}" )
endif()
