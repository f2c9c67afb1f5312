# What an agent outside this tree builds against: library, headers (generated ones too) and schemas
# under their folder names, the type-language compiler, and packages for CMake and pkg-config.

include( CMakePackageConfigHelpers )

set( headers "${CMAKE_INSTALL_INCLUDEDIR}/ipstate" )
set( package "${CMAKE_INSTALL_LIBDIR}/cmake/ipstate" )

install( TARGETS ipstate EXPORT ipstateTargets )
foreach( program zekc ipstated ipstate-nats )
   if( TARGET ${program} )
      set( export )
      if( program STREQUAL zekc )
         set( export EXPORT ipstateTargets )
      endif()
      install( TARGETS ${program} ${export} )
   endif()
endforeach()

foreach( room IN LISTS IPSTATE_ROOMS )
   if( EXISTS "${CMAKE_CURRENT_SOURCE_DIR}/${room}" )
      install( DIRECTORY "${room}/" DESTINATION "${headers}/${room}"
               FILES_MATCHING PATTERN "*.h" PATTERN "*.zek" )
      install( DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/generated/${room}/"
               DESTINATION "${headers}/${room}" OPTIONAL FILES_MATCHING PATTERN "*.h" )
   endif()
endforeach()

install( EXPORT ipstateTargets NAMESPACE ipstate:: DESTINATION "${package}" )
configure_package_config_file( cmake/ipstateConfig.cmake.in
   "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfig.cmake"
   INSTALL_DESTINATION "${package}" PATH_VARS headers )
write_basic_package_version_file( "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfigVersion.cmake"
   COMPATIBILITY SameMinorVersion )
install( FILES "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfig.cmake"
               "${CMAKE_CURRENT_BINARY_DIR}/ipstateConfigVersion.cmake"
               cmake/IpstateZek.cmake
         DESTINATION "${package}" )

# Relative to the file itself, so that an installation may be moved.
file( RELATIVE_PATH pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/" )
string( REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}" )
configure_file( cmake/ipstate.pc.in "${CMAKE_CURRENT_BINARY_DIR}/ipstate.pc" @ONLY )
install( FILES "${CMAKE_CURRENT_BINARY_DIR}/ipstate.pc"
         DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" )

if( TARGET ipstate-nats )
   install( FILES tools/ipstate-nats/fleet-users.conf
            DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" )
endif()
