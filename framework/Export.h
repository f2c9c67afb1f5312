// Symbol visibility. The library is compiled with -fvisibility=hidden; what an agent may link
// against is marked here and nowhere else.

#pragma once

#define IPSTATE_EXPORT __attribute__( ( visibility( "default" ) ) )
