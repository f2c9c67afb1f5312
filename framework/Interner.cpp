#include "framework/Interner.h"

#include <atomic>
#include <bit>
#include <cstring>
#include <new>
#include <sys/random.h>

namespace Zek {

namespace {

// Places are counted in units of this many bytes; index 0 is the empty text and holds no node.
constexpr uint64_t unit = 16;
// Chunk 0 has 2^12 units (64 KiB); chunk c > 0 has as many as all before it together.
constexpr unsigned firstChunkBits = 12;
constexpr unsigned chunkCount = 32 - firstChunkBits + 1;
constexpr unsigned rootBits = 12;

// The text and its final zero byte follow in place.
struct Node {
   std::atomic< uint32_t > child[4] = {};
   uint32_t hash = 0;
   uint32_t size = 0;

   char * text() { return reinterpret_cast< char * >( this + 1 ); }
   std::string_view view() { return { text(), size }; }
};

constinit std::atomic< uint32_t > root[1u << rootBits] = {};
constinit std::atomic< char * > chunks[chunkCount] = {};
constinit std::atomic< uint64_t > nextUnit{ 1 };
constinit std::atomic< size_t > textCount{ 0 };

unsigned
chunkOf( uint64_t place ) {
   unsigned width = static_cast< unsigned >( std::bit_width( place ) );
   return width <= firstChunkBits ? 0 : width - firstChunkBits;
}

uint64_t
chunkBegin( unsigned chunk ) {
   return chunk == 0 ? 0 : uint64_t( 1 ) << ( firstChunkBits - 1 + chunk );
}

uint64_t
chunkEnd( unsigned chunk ) {
   return uint64_t( 1 ) << ( firstChunkBits + chunk );
}

Node *
nodeAt( uint32_t index ) {
   unsigned chunk = chunkOf( index );
   char * base = chunks[chunk].load( std::memory_order_acquire );
   return std::launder(
      reinterpret_cast< Node * >( base + ( index - chunkBegin( chunk ) ) * unit ) );
}

// Memory of the chunk, made by whichever thread comes first.
char *
chunkMemory( unsigned chunk ) {
   char * memory = chunks[chunk].load( std::memory_order_acquire );
   if( memory ) return memory;
   size_t bytes = ( chunkEnd( chunk ) - chunkBegin( chunk ) ) * unit;
   char * made = static_cast< char * >( ::operator new( bytes ) );
   if( chunks[chunk].compare_exchange_strong( memory, made, std::memory_order_acq_rel ) ) {
      return made;
   }
   ::operator delete( made );
   return memory;
}

// A new node that nobody sees yet.
uint32_t
nodeFor( std::string_view text, uint32_t hash ) {
   uint64_t bytes = sizeof( Node ) + text.size() + 1;
   uint64_t units = ( bytes + unit - 1 ) / unit;
   if( units > UINT32_MAX || text.size() > UINT32_MAX ) throw std::bad_alloc();
   uint64_t before = nextUnit.load( std::memory_order_relaxed );
   uint64_t place;
   do {
      place = before;
      // A node never crosses the border of two chunks; the rest of the first stays unused.
      while( place < UINT32_MAX && chunkEnd( chunkOf( place ) ) - place < units ) {
         place = chunkEnd( chunkOf( place ) );
      }
      if( place + units > UINT32_MAX ) throw std::bad_alloc();
   } while( !nextUnit.compare_exchange_weak( before, place + units, std::memory_order_relaxed ) );

   unsigned chunk = chunkOf( place );
   char * memory = chunkMemory( chunk ) + ( place - chunkBegin( chunk ) ) * unit;
   Node * node = new( memory ) Node;
   node->hash = hash;
   node->size = static_cast< uint32_t >( text.size() );
   std::memcpy( node->text(), text.data(), text.size() );
   node->text()[text.size()] = '\0';
   return static_cast< uint32_t >( place );
}

// A number that nobody outside of the process knows.
uint64_t
secret() {
   static constinit std::atomic< uint64_t > made{ 0 };
   uint64_t number = made.load( std::memory_order_relaxed );
   if( number ) return number;
   uint64_t drawn = 0;
   // Without any it is the address of something, which differs between processes too.
   if( getrandom( &drawn, sizeof drawn, GRND_NONBLOCK ) != sizeof drawn || !drawn ) {
      drawn = reinterpret_cast< uintptr_t >( &drawn ) * 0x9e3779b97f4a7c15u | 1;
   }
   return made.compare_exchange_strong( number, drawn ) ? drawn : number;
}

// SipHash-1-3 by the secret: who chooses texts cannot choose these.
uint64_t
secretHash( std::string_view text ) {
   const uint64_t key = secret(), other = key * 0x9e3779b97f4a7c15u;
   uint64_t a = key ^ 0x736f6d6570736575u, b = other ^ 0x646f72616e646f6du;
   uint64_t c = key ^ 0x6c7967656e657261u, d = other ^ 0x7465646279746573u;
   auto round = [&] {
      a += b, b = std::rotl( b, 13 ) ^ a, a = std::rotl( a, 32 );
      c += d, d = std::rotl( d, 16 ) ^ c;
      a += d, d = std::rotl( d, 21 ) ^ a;
      c += b, b = std::rotl( b, 17 ) ^ c, c = std::rotl( c, 32 );
   };
   auto take = [&]( uint64_t word ) {
      d ^= word;
      round();
      a ^= word;
   };
   const uint64_t size = text.size();
   for( ; text.size() >= 8; text.remove_prefix( 8 ) ) {
      uint64_t word;
      std::memcpy( &word, text.data(), 8 );
      take( word );
   }
   uint64_t last = size << 56;
   std::memcpy( &last, text.data(), text.size() );
   take( last );
   c ^= 0xff;
   for( int i = 0; i < 3; ++i ) round();
   return a ^ b ^ c ^ d;
}

// Descends to the text or to the empty link where it belongs.
struct Descent {
   explicit Descent( uint32_t reversedHash )
      : link( &root[reversedHash >> ( 32 - rootBits )] ),
        rest( uint64_t( reversedHash ) << ( 32 + rootBits ) ) {}

   // The index of the text if it stands at or below `link`, else 0 with `link` at its place.
   uint32_t to( std::string_view text, uint32_t hash ) {
      for( ;; ) {
         uint32_t index = link->load( std::memory_order_acquire );
         if( index == 0 ) return 0;
         Node * node = nodeAt( index );
         if( node->hash == hash && node->view() == text ) return index;
         // Here all have the same hash, by chance or by somebody's choice.
         if( level++ == hashLevels ) rest = secretHash( text );
         link = &node->child[rest >> 62];
         rest <<= 2;
      }
   }

   static constexpr unsigned hashLevels = ( 32 - rootBits ) / 2;

   std::atomic< uint32_t > * link;
   uint64_t rest;
   unsigned level = 0;
};

} // namespace

InternedText
Interner::intern( std::string_view text ) {
   if( text.empty() ) return {};
   uint32_t hash = textHash( text );
   InternedText out{ 0, bitReverse( hash ) };
   Descent descent( out.reversedHash );
   out.index = descent.to( text, hash );
   if( out.index ) return out;
   uint32_t made = nodeFor( text, hash );
   do {
      uint32_t none = 0;
      if( descent.link->compare_exchange_strong( none, made, std::memory_order_acq_rel ) ) {
         textCount.fetch_add( 1, std::memory_order_relaxed );
         out.index = made;
         return out;
      }
      // Another thread linked a node here: the same text (ours stays unused) or one above us.
      out.index = descent.to( text, hash );
   } while( out.index == 0 );
   return out;
}

bool
Interner::find( std::string_view text, InternedText & out ) {
   InternedText found;
   if( !text.empty() ) {
      uint32_t hash = textHash( text );
      found.reversedHash = bitReverse( hash );
      found.index = Descent( found.reversedHash ).to( text, hash );
      if( found.index == 0 ) return false;
   }
   out = found;
   return true;
}

std::string_view
Interner::view( uint32_t index ) {
   return index == 0 ? std::string_view( "" ) : nodeAt( index )->view();
}

void
Interner::prefetch( uint32_t index ) {
   if( index ) __builtin_prefetch( nodeAt( index ) );
}

size_t
Interner::texts() {
   return textCount.load( std::memory_order_relaxed );
}

size_t
Interner::bytes() {
   return nextUnit.load( std::memory_order_relaxed ) * unit;
}

} // namespace Zek
