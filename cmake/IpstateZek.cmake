# Compiling schema files of the type language.
#
#    ipstate_add_schemas( <target>
#       SCHEMAS <path>...              # from the include root, as in Ip/Ip.zek
#       [INCLUDE_ROOT <folder>]        # default: the current source folder
#       [OUT_DIR <folder>] )           # default: generated/ in the current binary folder
#
# Each schema <Room>/<Name>.zek gives <out>/<Room>/<Name>.h, <Name>AttrLog.h and <Name>.zek.cpp. The
# sources join the target and the output folder its include path, for its users too. A schema is
# compiled again when it, a schema that it imports, or the compiler changed. What it imports is
# searched for in the include root and then where the target's headers are: so schemas of libraries
# that the target links to are found, ipstate's own among them. All types of a static library are
# registered in the program that links to it.
#
# The variable IPSTATE_ZEKC names another compiler of the same version, one that runs here while
# what is built does not.
#
# The same function serves this tree, projects that it is a part of, and users of the installed
# library.

function( ipstate_add_schemas target )
   cmake_parse_arguments( PARSE_ARGV 1 arg "" "INCLUDE_ROOT;OUT_DIR" "SCHEMAS" )
   if( arg_UNPARSED_ARGUMENTS OR NOT arg_SCHEMAS )
      message( FATAL_ERROR "ipstate_add_schemas( <target> SCHEMAS <path>... [INCLUDE_ROOT <folder>]"
                           " [OUT_DIR <folder>] ): ${arg_UNPARSED_ARGUMENTS}" )
   endif()
   if( NOT arg_INCLUDE_ROOT )
      set( arg_INCLUDE_ROOT "${CMAKE_CURRENT_SOURCE_DIR}" )
   endif()
   if( NOT arg_OUT_DIR )
      set( arg_OUT_DIR "${CMAKE_CURRENT_BINARY_DIR}/generated" )
   endif()
   set( zekc ipstate::zekc )
   if( IPSTATE_ZEKC )
      set( zekc "${IPSTATE_ZEKC}" )
   elseif( CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR )
      message( FATAL_ERROR "ipstate_add_schemas(): ipstate's compiler of schemas is built for"
                           " ${CMAKE_SYSTEM_PROCESSOR}; set IPSTATE_ZEKC to one that runs here" )
   endif()
   set( elsewhere "$<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>" )
   file( MAKE_DIRECTORY "${arg_OUT_DIR}" )
   get_target_property( type ${target} TYPE )
   foreach( schema IN LISTS arg_SCHEMAS )
      cmake_path( REMOVE_EXTENSION schema LAST_ONLY OUTPUT_VARIABLE stem )
      set( outputs "${arg_OUT_DIR}/${stem}.h" "${arg_OUT_DIR}/${stem}AttrLog.h"
           "${arg_OUT_DIR}/${stem}.zek.cpp" )
      add_custom_command(
         OUTPUT ${outputs}
         COMMAND ${zekc} --include-root "${arg_INCLUDE_ROOT}"
                 "$<$<BOOL:${elsewhere}>:--include-root;$<JOIN:${elsewhere},;--include-root;>>"
                 --out-dir "${arg_OUT_DIR}" --depfile "${arg_OUT_DIR}/${stem}.d" "${schema}"
         DEPENDS ${zekc} "${arg_INCLUDE_ROOT}/${schema}"
         DEPFILE "${arg_OUT_DIR}/${stem}.d"
         COMMENT "zekc ${schema}"
         COMMAND_EXPAND_LISTS
         VERBATIM )
      target_sources( ${target} PRIVATE ${outputs} )
      if( type STREQUAL STATIC_LIBRARY )
         # Types register themselves when their file is linked, be they used or not.
         string( MAKE_C_IDENTIFIER "zekTypesOf_${stem}" name )
         target_link_options( ${target} INTERFACE "LINKER:-u,${name}" )
      endif()
   endforeach()
   target_include_directories( ${target} PUBLIC
      $<BUILD_INTERFACE:${arg_OUT_DIR}> $<BUILD_INTERFACE:${arg_INCLUDE_ROOT}> )
endfunction()
