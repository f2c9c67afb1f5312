# Compiling schema files of the type language.
#
#    ipstate_add_schemas( <target>
#       SCHEMAS <path>...              # from the include root, as in Ip/Ip.zek
#       [INCLUDE_ROOT <folder>]        # default: the current source folder
#       [OUT_DIR <folder>] )           # default: generated/ in the current binary folder
#
# Each schema <Room>/<Name>.zek gives <out>/<Room>/<Name>.h, <Name>AttrLog.h and <Name>.zek.cpp. The
# sources join the target and the output folder its include path, for its users too. A schema is
# compiled again when it, a schema that it imports, or the compiler changed.
#
# The same function serves this tree and the users of the installed library.

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
   set( roots --include-root "${arg_INCLUDE_ROOT}" )
   if( IPSTATE_SCHEMA_DIR AND NOT IPSTATE_SCHEMA_DIR STREQUAL arg_INCLUDE_ROOT )
      list( APPEND roots --include-root "${IPSTATE_SCHEMA_DIR}" )
   endif()
   foreach( schema IN LISTS arg_SCHEMAS )
      cmake_path( REMOVE_EXTENSION schema LAST_ONLY OUTPUT_VARIABLE stem )
      set( outputs "${arg_OUT_DIR}/${stem}.h" "${arg_OUT_DIR}/${stem}AttrLog.h"
           "${arg_OUT_DIR}/${stem}.zek.cpp" )
      cmake_path( GET outputs PARENT_PATH folder )
      file( MAKE_DIRECTORY "${arg_OUT_DIR}" )
      add_custom_command(
         OUTPUT ${outputs}
         COMMAND ipstate::zekc ${roots} --out-dir "${arg_OUT_DIR}"
                 --depfile "${arg_OUT_DIR}/${stem}.d" "${schema}"
         DEPENDS ipstate::zekc "${arg_INCLUDE_ROOT}/${schema}"
         DEPFILE "${arg_OUT_DIR}/${stem}.d"
         COMMENT "zekc ${schema}"
         VERBATIM )
      target_sources( ${target} PRIVATE ${outputs} )
   endforeach()
   get_target_property( type ${target} TYPE )
   target_include_directories( ${target} PUBLIC
      $<BUILD_INTERFACE:${arg_OUT_DIR}> $<BUILD_INTERFACE:${arg_INCLUDE_ROOT}> )
endfunction()
