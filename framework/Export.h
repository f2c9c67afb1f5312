// Symbol visibility. The library is compiled with -fvisibility=hidden; what an agent may link
// against is marked here and nowhere else.

#pragma once

#if __cplusplus < 202002L
#error "ipstate needs C++20: compile with -std=c++20"
#endif

#define IPSTATE_EXPORT __attribute__( ( visibility( "default" ) ) )
