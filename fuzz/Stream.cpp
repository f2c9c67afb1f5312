// Gives a live tree the records of a peer that may send anything (tests/stream/FuzzWorld.h has
// the form of an input). Whatever comes, the tree stays whole and readable, what is no stream is
// refused with its place, and nothing is left when the tree goes.

#include "tests/stream/FuzzWorld.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace ipstate::test;

extern "C" int
LLVMFuzzerTestOneInput( const uint8_t * data, size_t size ) {
   const std::string_view input( reinterpret_cast< const char * >( data ), size );
   static const bool warm = [] {
      FuzzWorld( {} ); // what is made once
      return true;
   }();
   if( !warm || size < Setup::size ) return 0;
   const auto before = liveObjects();
   {
      const Setup setup = Setup::of( input );
      FuzzWorld world( setup );
      const auto parts = split( input );
      for( size_t i = 1; i < parts.size(); ++i ) world.take( parts[i] );
      world.text();
      if( setup.is( Setup::recovers ) ) world.recover();
   }
   if( liveObjects() != before ) std::abort();
   return 0;
}

extern "C" size_t LLVMFuzzerMutate( uint8_t * data, size_t size, size_t maxSize );

namespace {

void
mutateBytes( std::string & bytes, size_t room ) {
   const size_t size = bytes.size();
   bytes.resize( size + room );
   bytes.resize(
      LLVMFuzzerMutate( reinterpret_cast< uint8_t * >( bytes.data() ), size, bytes.size() ) );
}

} // namespace

/// Mostly one record changes, or records come, go and move as they are.
extern "C" size_t
LLVMFuzzerCustomMutator( uint8_t * data, size_t size, size_t maxSize, unsigned seed ) {
   Random random( seed );
   auto parts = split( { reinterpret_cast< const char * >( data ), size } );
   const auto count = static_cast< uint32_t >( parts.size() );
   if( count < 2 || random.oneIn( 16 ) ) return LLVMFuzzerMutate( data, size, maxSize );
   auto any = [&] { return parts.begin() + 1 + random.below( count - 1 ); };
   const size_t room = std::min< size_t >( maxSize - std::min( size, maxSize ), 64 );
   switch( random.below( 10 ) ) {
   case 0:
      mutateBytes( parts[0], 0 );
      break;
   case 1:
      parts.erase( any() );
      break;
   case 2: {
      const std::string copied = *any();
      parts.insert( any(), copied );
      break;
   }
   case 3:
      std::iter_swap( any(), any() );
      break;
   case 4: {
      // The steps, flow, attribute or kind of another record.
      static constexpr size_t fields[][2] = { { 0, 1 }, { 1, 4 }, { 5, 2 }, { 7, 1 } };
      auto & [at, length] = fields[random.below( 4 )];
      const std::string & from = *any();
      std::string & to = *any();
      if( from.size() >= at + length && to.size() >= at + length ) {
         std::memcpy( to.data() + at, from.data() + at, length );
      }
      break;
   }
   case 5: {
      // Behind the header, the end of another record.
      const std::string from = *any();
      std::string & to = *any();
      if( from.size() > 13 && to.size() > 13 ) {
         to.replace( 13 + random.below( static_cast< uint32_t >( to.size() - 13 ) ), to.npos, from,
                     13 + random.below( static_cast< uint32_t >( from.size() - 13 ) ) );
      }
      break;
   }
   case 6: {
      std::string & to = *any();
      if( !to.empty() ) to[0] = static_cast< char >( random.below( 0x60 ) );
      break;
   }
   default:
      mutateBytes( *any(), room );
      break;
   }
   const std::string made = joined( parts );
   size = std::min( made.size(), maxSize );
   std::memcpy( data, made.data(), size );
   return size;
}
