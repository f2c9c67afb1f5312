# What stands in a room (source folder).

# The room's sources without the file that holds main(); empty when there is no such room.
function( ipstate_room_sources result room )
   file( GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${room}/*.cpp" )
   list( FILTER sources EXCLUDE REGEX "/[Mm]ain\\.cpp$" )
   set( ${result} ${sources} PARENT_SCOPE )
endfunction()

# The file of the room that holds main(), or nothing.
function( ipstate_room_main result room )
   file( GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${room}/[Mm]ain.cpp" )
   set( ${result} ${sources} PARENT_SCOPE )
endfunction()
