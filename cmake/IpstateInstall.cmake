# What is installed, in components:
#
#    runtime   the library
#    dev       what an agent outside this tree builds against: headers (generated ones too) and
#              schemas under their folder names, the compiler of schemas, and packages for CMake and
#              pkg-config
#    tools     the programs of people and scripts
#    agent     ipstated, and what nothing else is said of
#
# `cmake --install <build> --component <name>` installs one of them.

include( CMakePackageConfigHelpers )

set( CMAKE_INSTALL_DEFAULT_COMPONENT_NAME agent )
set( headers "${CMAKE_INSTALL_INCLUDEDIR}/ipstate" )
set( package "${CMAKE_INSTALL_LIBDIR}/cmake/ipstate" )

install( TARGETS ipstate EXPORT ipstateTargets
         LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev )
install( TARGETS ipstate_zekc EXPORT ipstateTargets RUNTIME COMPONENT dev )

# Programs find the library that is installed beside them.
function( ipstate_install_program program component )
   if( NOT TARGET ${program} )
      return()
   endif()
   file( RELATIVE_PATH library_dir "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}" )
   set_target_properties( ${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${library_dir}" )
   install( TARGETS ${program} RUNTIME COMPONENT ${component} )
endfunction()
ipstate_install_program( ipstated agent )
ipstate_install_program( ipstatectl tools )
ipstate_install_program( ipstate-nats tools )

foreach( room IN LISTS IPSTATE_ROOMS ITEMS loops )
   install( DIRECTORY "${room}/" DESTINATION "${headers}/${room}" COMPONENT dev
            FILES_MATCHING PATTERN "*.h" PATTERN "*.zek" )
   install( DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/generated/${room}/" COMPONENT dev
            DESTINATION "${headers}/${room}" OPTIONAL FILES_MATCHING PATTERN "*.h" )
endforeach()

install( EXPORT ipstateTargets NAMESPACE ipstate:: DESTINATION "${package}" COMPONENT dev )
configure_package_config_file( cmake/ipstateConfig.cmake.in
   "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfig.cmake"
   INSTALL_DESTINATION "${package}" )
write_basic_package_version_file( "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfigVersion.cmake"
   COMPATIBILITY SameMinorVersion )
install( FILES "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfig.cmake"
               "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfigVersion.cmake"
               cmake/IpstateZek.cmake
         DESTINATION "${package}" COMPONENT dev )

# Relative to the file itself, so that an installation may be moved.
file( RELATIVE_PATH pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/" )
string( REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}" )
configure_file( cmake/ipstate.pc.in "${CMAKE_CURRENT_BINARY_DIR}/ipstate.pc" @ONLY )
install( FILES "${CMAKE_CURRENT_BINARY_DIR}/ipstate.pc"
         DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev )

if( TARGET ipstate-nats )
   install( FILES tools/ipstate-nats/fleet-users.conf COMPONENT tools
            DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" )
endif()

# Where gdb looks for what shows the types of a library that it has loaded.
install( FILES scripts/ipstate-gdb.py COMPONENT dev
         DESTINATION "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}"
         RENAME "libipstate.so.${PROJECT_VERSION}-gdb.py" )

# Takes away what the last installation from this build folder brought.
add_custom_target( uninstall
   COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/scripts/uninstall" "${CMAKE_CURRENT_BINARY_DIR}" VERBATIM )

# The agent as a service: what systemd, sysusers and tmpfiles read, and the figures' dashboard.
if( TARGET ipstated )
   set( service "${CMAKE_CURRENT_SOURCE_DIR}/agents/ipstated/service" )
   configure_file( "${service}/ipstated.service.in"
                   "${CMAKE_CURRENT_BINARY_DIR}/ipstated.service" @ONLY )
   install( FILES "${CMAKE_CURRENT_BINARY_DIR}/ipstated.service" "${service}/ipstated.socket"
            DESTINATION lib/systemd/system COMPONENT agent )
   install( FILES "${service}/ipstated.sysusers" DESTINATION lib/sysusers.d
            RENAME ipstated.conf COMPONENT agent )
   install( FILES "${service}/ipstated.tmpfiles" DESTINATION lib/tmpfiles.d
            RENAME ipstated.conf COMPONENT agent )
   install( FILES "${service}/ipstated.conf"
            DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/ipstate" COMPONENT agent )
   install( FILES "${service}/apply.conf" "${service}/grafana.json"
            DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT agent )
endif()
