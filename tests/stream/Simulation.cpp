#include "tests/stream/Simulation.h"

#include <algorithm>
#include <deque>

namespace ipstate::test {

using namespace Zek;

namespace {

/// A byte pipe with a capacity that moves.
struct Pipe {
   std::deque< char > bytes;
   size_t capacity = 65536;
   bool stalled = false;
};

struct Link : Kelmo::SessionOwner {
   Link( const Dir::Ptr & source, const Dir::Ptr & copy )
      : server( source, *this ),
        client( copy, *this ) {}

   void onMountRefused( const Kelmo::Mount &, const std::string & why ) override {
      problem = "refused: " + why;
   }

   Kelmo::Session server;
   Kelmo::Session client;
   Pipe down; // server to client
   Pipe up;
   bool connected = false;
   std::string problem;

   void connect() {
      server.connected();
      client.connected();
      connected = true;
   }
   void cut() {
      if( !connected ) return;
      server.disconnected();
      client.disconnected();
      down.bytes.clear();
      up.bytes.clear();
      connected = false;
   }
   static void fill( Kelmo::Session & from, Pipe & pipe, size_t most ) {
      if( pipe.stalled || pipe.bytes.size() >= pipe.capacity ) return;
      size_t n = std::min( { from.output().size(), most, pipe.capacity - pipe.bytes.size() } );
      auto * data = reinterpret_cast< const char * >( from.output().data() );
      pipe.bytes.insert( pipe.bytes.end(), data, data + n );
      from.carried( n );
   }
   void empty( Kelmo::Session & to, Pipe & pipe, size_t most ) {
      if( pipe.stalled ) return;
      std::string piece( pipe.bytes.begin(),
                         pipe.bytes.begin() +
                            static_cast< ptrdiff_t >( std::min( most, pipe.bytes.size() ) ) );
      pipe.bytes.erase( pipe.bytes.begin(),
                        pipe.bytes.begin() + static_cast< ptrdiff_t >( piece.size() ) );
      try {
         to.receive( piece.data(), piece.size() );
      } catch( const StreamException & e ) {
         if( !corrupted ) problem = e.what();
         corrupted = false;
         cut();
      }
   }
   bool corrupted = false;

   /// Moves some bytes of each pipe. True when anything moved.
   bool pump( Random & random, bool all ) {
      if( !connected ) return false;
      size_t before =
         down.bytes.size() + up.bytes.size() + server.output().size() + client.output().size();
      size_t most = all ? 1 << 20 : 1 + random.below( random.oneIn( 2 ) ? 40 : 4000 );
      fill( server, down, most );
      fill( client, up, most );
      empty( client, down, most );
      if( connected ) empty( server, up, most );
      if( !connected ) return true;
      if( all ) {
         server.drain();
         client.drain();
      }
      return before || down.bytes.size() || up.bytes.size() || !server.output().empty() ||
             !client.output().empty();
   }
};

struct World {
   explicit World( uint64_t seed ) : random( seed ) {
      uint32_t count = 2 + random.below( 3 );
      for( uint32_t i = 0; i < count; ++i ) trees.push_back( dirFactory() );
      trees[0]->dirIs( "all" );
      for( uint32_t i = 1; i < count; ++i ) {
         // Chains and stars.
         uint32_t from = random.oneIn( 2 ) ? i - 1 : 0;
         links.push_back( std::make_unique< Link >( trees[from], trees[i] ) );
         Link & link = *links.back();
         link.client.mount( Kelmo::Mount( "all", "Zek::Dir", "r", Kelmo::MountFilter( false ) ) );
         if( random.oneIn( 2 ) ) {
            link.server.adapter().nboAttrLogOut().capacityIs( random.below( 3000 ) + 1 );
         }
         link.connect();
      }
   }
   ~World() {
      for( auto & link : links ) link->cut();
      links.clear();
   }

   void step() {
      uint32_t what = random.below( 100 );
      Link & link = *links[random.below( static_cast< uint32_t >( links.size() ) )];
      if( what < 60 ) {
         for( uint32_t n = 1 + random.below( 8 ); n; --n ) {
            log( mutate( random, *trees[0]->entity( "all" ) ) );
         }
      } else if( what < 85 ) {
         for( auto & each : links ) each->pump( random, false );
      } else if( what < 88 ) {
         link.down.stalled = !link.down.stalled;
         log( link.down.stalled ? "stall" : "go on" );
      } else if( what < 91 ) {
         link.down.capacity = random.below( 65536 );
      } else if( what < 94 ) {
         log( "cut" );
         link.cut();
      } else if( what < 97 ) {
         if( !link.connected ) {
            log( "connect" );
            link.connect();
         }
      } else if( what < 98 || !random.oneIn( 10 ) ) {
         if( !link.down.bytes.empty() ) {
            log( "corrupt" );
            auto & byte =
               link.down.bytes[random.below( static_cast< uint32_t >( link.down.bytes.size() ) )];
            byte = static_cast< char >( byte ^ ( 1 << random.below( 8 ) ) );
            link.corrupted = true;
         }
      } else {
         log( "new root" );
         trees[0]->entityDel( "all" );
         if( random.oneIn( 3 ) ) link.pump( random, false );
         trees[0]->dirIs( "all" );
      }
   }

   void rest() {
      for( int round = 0; round < 10000; ++round ) {
         bool moved = false;
         for( auto & link : links ) {
            link->down.stalled = link->up.stalled = false;
            link->down.capacity = link->up.capacity = 1 << 20;
            if( !link->connected ) link->connect();
            moved |= link->pump( random, true );
         }
         if( !moved ) return;
      }
      log( "no rest" );
   }

   std::string check() {
      std::string found;
      for( size_t i = 0; i < links.size(); ++i ) {
         Link & link = *links[i];
         if( !link.problem.empty() )
            found += "link " + std::to_string( i ) + ": " + link.problem + "\n";
         if( !link.server.isAtRest() || !link.client.isAtRest() ) found += "not at rest\n";
         if( !link.client.isSynchronised() ) found += "not synchronised\n";
      }
      for( size_t i = 1; i < trees.size(); ++i ) {
         Entity::Ptr source = trees[0]->entity( "all" );
         Entity::Ptr copy = trees[i]->entity( "all" );
         if( !copy ) {
            found += "no copy\n";
            continue;
         }
         std::string differs = difference( *source, *copy );
         if( !differs.empty() ) found += "tree " + std::to_string( i ) + ":\n" + differs;
      }
      return found;
   }

   void log( const std::string & what ) { steps.push_back( what ); }

   Random random;
   std::vector< Dir::Ptr > trees;
   std::vector< std::unique_ptr< Link > > links;
   std::vector< std::string > steps;
};

} // namespace

std::string
simulate( uint64_t seed, uint32_t steps ) {
   std::string found;
   World world( seed );
   for( uint32_t i = 0; i < steps && found.empty(); ++i ) {
      world.step();
      if( world.random.oneIn( 60 ) ) {
         world.rest();
         found = world.check();
      }
   }
   if( found.empty() ) {
      world.rest();
      found = world.check();
   }
   if( found.empty() ) return found;
   std::string last;
   size_t from = world.steps.size() > 60 ? world.steps.size() - 60 : 0;
   for( size_t i = from; i < world.steps.size(); ++i ) last += "   " + world.steps[i] + "\n";
   return "seed " + std::to_string( seed ) + "\n" + last + found;
}

} // namespace ipstate::test
