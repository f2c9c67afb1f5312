// Peers that send anything: a stream cut anywhere, bytes that were changed, records that lie.

#include "Ip/Ip.h"
#include "framework/attrlog/StreamAdapter.h"
#include "tests/stream/FuzzWorld.h"
#include "tests/stream/Memory.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>

namespace ipstate::test {

namespace {

using namespace Zek::NboAttrLog;
using Body = std::function< void( Zek::Wire::Encoder & ) >;

uint16_t
idOf( const char * type, const char * attribute ) {
   return Zek::typeNode( type )->attribute( attribute )->id;
}

/// A world, and a peer that was greeted and says whatever the test wants.
class Peer {
 public:
   explicit Peer( uint8_t flags = 0, bool greets = true ) : world( Setup{ .flags = flags } ) {
      if( greets ) greet();
   }
   std::string greet() {
      return control( 64, []( auto & out ) {
         out.u32( Kelmo::Session::magic );
         out.u16( Kelmo::Session::version );
      } );
   }
   std::string mount( const char * at, const char * mode, uint32_t number = 1 ) {
      return control( 65, [&]( auto & out ) {
         out.u32( number );
         for( const char * text : { at, "Zek::Dir", mode } ) out.text( text );
         out.u8( 0 );
      } );
   }

   /// What the connection ends with, without the number of the record; empty when it goes on.
   std::string raw( const std::string & bytes ) {
      try {
         world.session().receive( bytes.data(), bytes.size() );
      } catch( const Zek::StreamException & e ) {
         const std::string_view what = e.what();
         return std::string( what.substr( what.find( " of " ) + 4 ) );
      }
      return "";
   }
   std::string frame( uint32_t flow, uint16_t attribute, Kind kind, const Body & body ) {
      Zek::Wire::Buffer bytes;
      Zek::Wire::Encoder out( bytes );
      out.u8( 0 );
      out.u32( flow );
      out.u16( attribute );
      out.u8( static_cast< uint8_t >( kind ) );
      out.u8( 0 );
      if( body ) body( out );
      return frameOf( bytes.view(), world.session().received() );
   }
   std::string send( uint32_t flow, uint16_t attribute, Kind kind, const Body & body = {} ) {
      return raw( frame( flow, attribute, kind, body ) );
   }
   std::string control( uint16_t message, const Body & body = {} ) {
      return send( 0, message, Kind::value, body );
   }
   struct Declared {
      uint16_t id;
      uint32_t signature;
      uint8_t size;
   };
   /// Declares a type as it is here, but for its attributes, where `attributes` has any; its number
   /// counts up from 1.
   std::string declare( const char * name, std::vector< Declared > attributes = {} ) {
      ++types;
      const auto * type = Zek::typeNode( name );
      if( type && !Plan::covers( *type ) ) type = nullptr;
      if( type && attributes.empty() ) {
         const Plan plan( *type );
         for( const auto * rows : { &plan.plain, &plan.collections } ) {
            for( const auto * row : *rows ) attributes.push_back( declared( *row ) );
         }
      }
      return control( typeControl, [&]( auto & out ) {
         out.u32( types );
         out.text( name );
         out.u64( type ? Plan( *type ).fingerprint : 0 );
         out.u32( static_cast< uint32_t >( attributes.size() ) );
         for( const Declared & a : attributes ) {
            out.u16( a.id );
            out.u32( a.signature );
            out.u8( a.size );
         }
      } );
   }
   static Declared declared( const Zek::AttributeRow & row ) {
      return { row.id, Plan::signature( row ), Plan::sizeInState( row ) };
   }
   std::string root( uint32_t mount = 1, uint32_t flow = 1, const char * name = "all" ) {
      return control( rootControl, [&]( auto & out ) {
         out.u32( mount );
         out.text( "Zek::Dir" );
         out.text( name );
         named( out, flow, 1 );
      } );
   }
   static void named( Zek::Wire::Encoder & out, uint32_t flow, uint32_t type ) {
      out.u32( flow );
      out.u32( 0 );
      out.u32( type );
   }
   /// A member whose key is a text.
   std::string instance( uint32_t parent, uint16_t collection, uint32_t flow, uint32_t type,
                         std::string_view key, const Body & arguments = {} ) {
      return send( parent, collection, Kind::instantiate, [&]( auto & out ) {
         named( out, flow, type );
         out.text( key );
         if( arguments ) arguments( out );
      } );
   }
   In & in() { return world.session().adapter().nboAttrLogIn(); }

   FuzzWorld world;
   uint32_t types = 0;
};

/// A reference by path: collections and keys, which are texts.
Body
path( uint16_t steps, std::vector< std::pair< uint16_t, std::string > > way ) {
   return [=]( auto & out ) {
      out.u8( 2 );
      out.u16( steps );
      for( auto & [collection, key] : way ) {
         out.u16( collection );
         out.u32( static_cast< uint32_t >( key.size() + 4 ) );
         out.text( key );
      }
   };
}

/// A root of flow 1 and a configuration of flow 2 with an interface of flow 3.
struct Interface : Peer {
   Interface() {
      for( const char * type : { "Zek::Dir", "Ip::Config", "Ip::IpIntfConfig" } ) declare( type );
      root();
      instance( 1, Zek::entityAttr, 2, 2, "config" );
      instance( 2, idOf( "Ip::Config", "ipIntfConfig" ), 3, 3, "e1" );
   }
   /// The value of an attribute of the interface.
   std::string value( const char * attribute, const Body & body ) {
      return send( 3, idOf( "Ip::IpIntfConfig", attribute ), Kind::value, body );
   }
};

/// A root of flow 1 and a status of flow 2, whose interfaces are of type 3.
struct Statuses : Peer {
   Statuses() {
      for( const char * type : { "Zek::Dir", "Ip::Input::Status", "Ip::IpIntfStatus" } ) {
         declare( type );
      }
      root();
      instance( 1, Zek::entityAttr, 2, 2, "status" );
   }
};

} // namespace

TEST( Hostile, aPeerSaysNoMoreThanIsItsBusiness ) {
   const std::string early = ", offset 4: expected a greeting before all else";
   EXPECT_EQ( Peer( 0, false ).declare( "Zek::Dir" ), "flow 0, attribute 1" + early );
   EXPECT_EQ( Peer( Setup::owner, false ).mount( "all", "r" ), "flow 0, attribute 65" + early );
   EXPECT_EQ( Peer( 0, false ).send( 7, 258, Kind::value ), "flow 7, attribute 258" + early );
   // Of a record that is longer nothing is waited for.
   const ptrdiff_t before = heldBytes();
   Peer stranger( 0, false );
   const ptrdiff_t made = heldBytes() - before;
   auto greetingOf = []( Peer & peer, size_t bytes ) {
      return peer.frame( 0, 64, Kind::value, [=]( auto & out ) {
         out.bytes( std::string( bytes, 'x' ).data(), bytes );
      } );
   };
   const std::string kept = greetingOf( stranger, 65000 );
   const ptrdiff_t framed = heldBytes() - before - made;
   EXPECT_EQ( stranger.raw( kept.substr( 0, kept.size() - 1 ) ), "" );
   EXPECT_LT( heldBytes() - before - made - framed, 160 << 10 );
   Peer another( 0, false );
   EXPECT_NE( another.raw( greetingOf( another, 66000 ) ).find( "expected a length of 22 bytes" ),
              std::string::npos );
   // A reader makes nothing at the server that it reads from, before and behind its mounts.
   for( bool mounts : { false, true } ) {
      auto peer = [=] {
         auto made = std::make_unique< Peer >( Setup::owner );
         if( mounts ) {
            EXPECT_EQ( made->mount( "all", "r" ), "" );
         }
         return made;
      };
      const std::string refused = ", offset 4: expected a mount for writing before";
      EXPECT_EQ( peer()->declare( "Zek::Dir" ), "flow 0, attribute 1" + refused );
      EXPECT_EQ( peer()->root(), "flow 0, attribute 5" + refused );
      EXPECT_EQ( peer()->instance( 1, 5, 2, 1, "a" ), "flow 1, attribute 5" + refused );
      EXPECT_EQ( peer()->control( ackControl, []( auto & out ) { out.u64( 0 ); } ), "" );
   }
   // And mounts no more than a few.
   Peer many( Setup::owner );
   std::string answers;
   for( uint32_t number = 1; number < 70; ++number ) {
      EXPECT_EQ( many.mount( "all", "r", number ), "" );
      Kelmo::Session & session = many.world.session();
      answers += session.output().view();
      session.carried( session.output().size() );
   }
   EXPECT_NE( answers.find( "more than 64 mounts" ), std::string::npos );
}

TEST( Hostile, whatIsMalformedIsRefusedInWords ) {
   auto flow = []( uint32_t number ) {
      return [=]( auto & out ) {
         out.u8( 1 );
         out.u32( number );
      };
   };
   auto bytes = []( std::string_view all ) {
      return [=]( auto & out ) { out.bytes( all.data(), all.size() ); };
   };
   struct Case {
      std::function< std::string( Interface & ) > send;
      std::string expected;
   };
   const std::string intf = "'all/config/ipIntfConfig[e1]', attribute ",
                     none = "flow 0, attribute ";
   const Case cases[] = {
      // Values
      { [&]( auto & w ) { return w.value( "forwarding", bytes( "\2" ) ); },
        intf + "forwarding, offset 22: expected 0 or 1" },
      { [&]( auto & w ) { return w.value( "forwarding", bytes( "\1\1" ) ); },
        intf + "forwarding, offset 22: expected the end of the record" },
      { [&]( auto & w ) { return w.value( "addrSource", []( auto & out ) { out.u32( 2 ); } ); },
        intf + "addrSource, offset 25: expected an enumerator's number" },
      { [&]( auto & w ) { return w.value( "addrWithMask", bytes( "aaaa\x21" ) ); },
        intf + "addrWithMask, offset 26: expected a prefix length of the family" },
      { [&]( auto & w ) { return w.value( "addrWithMask", bytes( "aaaa" ) ); },
        intf + "addrWithMask, offset 25: expected a prefix length" },
      { [&]( auto & w ) { return w.value( "configSource", bytes( "\xff\xff\xff\xff" ) ); },
        intf + "configSource, offset 25: expected a text" },
      // References
      { [&]( auto & w ) { return w.value( "l3Config", bytes( "\5" ) ); },
        intf + "l3Config, offset 22: expected a kind of reference" },
      { [&]( auto & w ) { return w.value( "l3Config", flow( 4 ) ); },
        intf + "l3Config, offset 26: expected a flow that was announced" },
      { [&]( auto & w ) { return w.value( "l3Config", flow( 1 ) ); },
        intf + "l3Config, offset 26: expected a reference to an entity of the attribute's type" },
      { [&]( auto & w ) { return w.value( "l3Config", path( 65, {} ) ); },
        intf + "l3Config, offset 24: expected 64 steps or fewer" },
      { [&]( auto & w ) {
          return w.value( "l3Config", path( 2, { { 5, "a" } } ) );
       },
        intf + "l3Config, offset 35: expected the number of a collection" },
      // Instances and collections
      { [&]( auto & w ) { return w.instance( 2, 258, 3, 4, "e2" ); },
        "'all/config', attribute ipIntfConfig, offset 33: "
        "expected the number of a type that was declared" },
      { [&]( auto & w ) { return w.instance( 2, 258, 3, 2, "e2" ); },
        "'all/config', attribute ipIntfConfig, offset 39: "
        "expected a type that the collection holds" },
      { [&]( auto & w ) { return w.instance( 2, 258, 2, 3, "e2" ); },
        "'all/config', attribute ipIntfConfig, offset 29: "
        "expected a flow other than the parent's" },
      { [&]( auto & w ) { return w.instance( 2, 258, 5000, 3, "e2" ); },
        "'all/config', attribute ipIntfConfig, offset 29: expected the number of a flow" },
      { [&]( auto & w ) { return w.instance( 9, 258, 4, 3, "e2" ); },
        "flow 9, attribute 258, offset 4: expected a flow that was announced" },
      { [&]( auto & w ) { return w.instance( 3, 260, 4, 3, "" ); },
        intf + "secondaryWithMask, offset 33: "
               "expected a member of a collection that owns none" },
      { [&]( auto & w ) { return w.send( 3, 268, Kind::beginWhole, bytes( "aaaa" ) ); },
        intf + "forwarding, offset 25: expected a collection and nothing more" },
      // Control
      { [&]( auto & w ) { return w.control( 9 ); },
        none + "9, offset 21: expected a control message" },
      { [&]( auto & w ) { return w.control( 67 ); },
        none + "67, offset 21: expected a greeting, mount or refusal" },
      { [&]( auto & w ) { return w.control( endControl, bytes( "aaaa" ) ); },
        none + "8, offset 25: expected the end of a dump that began" },
      { [&]( auto & w ) { return w.control( ackControl, bytes( "\0aaaaaaa" ) ); },
        none + "2, offset 21: expected a 64-bit number" },
      { [&]( auto & w ) { return w.root( 2 ); },
        none + "5, offset 56: expected the root of an export that was asked for" },
      { [&]( auto & w ) { return w.root( 1, 1, "other" ); },
        none + "5, offset 58: expected the root of an export that was asked for" },
      { [&]( auto & w ) {
          w.types = 9;
          return w.declare( "Zek::Dir" );
       },
        none + "1, offset 49: expected the next type's number, up to the quota" },
      { [&]( auto & w ) {
          return w.control( 65, []( auto & out ) {
             out.u32( 1 );
             out.text( std::string( 5000, 'x' ) );
             for( const char * text : { "Zek::Dir", "r" } ) out.text( text );
             out.u8( 0 );
          } );
       },
        none + "65, offset 5047: expected a mount with number, path, and mode r, ri or w" },
      // Frames
      { [&]( auto & w ) { return w.raw( std::string( 20, '\0' ) ); },
        none + "0, offset 12: expected the check of the next record's header" },
      { [&]( auto & w ) {
          std::string frame = w.frame( 0, 1, Kind::value, bytes( "" ) );
          correct( frame, w.world.session().received(), 21 );
          return w.raw( frame );
       },
        none + "1, offset 0: expected a length of 22 bytes up to the quota" },
      { [&]( auto & w ) { return w.send( 3, 268, static_cast< Kind >( 7 ), bytes( "\1" ) ); },
        intf + "forwarding, offset 10: expected a kind of record" },
   };
   for( const Case & c : cases ) {
      Interface world;
      const std::string before = world.world.text();
      EXPECT_EQ( c.send( world ), c.expected );
      EXPECT_EQ( world.world.text(), before );
      EXPECT_THROW( world.world.session().receive( "", 0 ), Zek::StreamException );
   }
}

// -- Recorded streams -------------------------------------------------------------------------

namespace {

/// What an honest peer says of entities of a type, to one who reads or to their owner.
struct Recorded {
   Recorded( size_t type, uint8_t flags ) {
      setup.type = setup.seed = static_cast< uint8_t >( type );
      setup.flags = flags;
      const std::string stream = recorded( setup, 2 );
      for( std::string_view left = stream; !left.empty(); ) {
         const uint32_t length = FrameHeader::of( left.data() ).length;
         frames.emplace_back( left.substr( 0, length ) );
         left.remove_prefix( length );
      }
   }
   static std::vector< Recorded > all() {
      std::vector< Recorded > streams;
      for( size_t type = 0; type < rootTypes().size(); ++type ) {
         for( int flags : { 0, int( Setup::owner ) } ) {
            streams.emplace_back( type, static_cast< uint8_t >( flags ) );
         }
      }
      return streams;
   }
   Setup setup;
   std::vector< std::string > frames;
};

} // namespace

TEST( Hostile, aStreamThatIsCutLeavesItsLastWholeRecord ) {
   for( const Recorded & stream : Recorded::all() ) {
      FuzzWorld world( stream.setup );
      std::string before;
      for( size_t record = 0; record < stream.frames.size(); ++record ) {
         const std::string & frame = stream.frames[record];
         before = world.text();
         for( size_t i = 0; i < frame.size(); ++i ) {
            ASSERT_EQ( world.session().received(), record );
            if( i + 1 == frame.size() ) {
               ASSERT_EQ( world.text(), before );
            }
            world.session().receive( &frame[i], 1 );
         }
      }
      before = world.text();
      std::string last = stream.frames.back();
      correct( last, stream.frames.size() );
      world.session().receive( last.data(), last.size() - 1 );
      world.session().disconnected();
      ASSERT_EQ( world.text(), before );
   }
}

TEST( Hostile, aByteThatIsChangedIsFoundOrSaysSomethingElse ) {
   size_t tried = 0, applied = 0;
   std::set< std::pair< bool, std::string > > seen; // of these records one is enough
   for( const Recorded & stream : Recorded::all() ) {
      if( stream.setup.type % 2 == stream.setup.flags ) continue; // in one direction or the other
      for( size_t record = 0; record < stream.frames.size(); ++record ) {
         const std::string & frame = stream.frames[record];
         const bool isNew = seen.emplace( stream.setup.flags, frame.substr( 20 ) ).second;
         for( size_t i = 0; isNew && i < frame.size(); ++i ) {
            // In turn: one bit, all of them clear, all set; the checks as they were, or corrected.
            const bool isOfChecks = i < 4 || ( i >= FrameHeader::checked && i < FrameHeader::size );
            const bool corrected = !isOfChecks && ( tried / 3 ) % 4;
            std::string changed = frame;
            char & byte = changed[i];
            switch( tried++ % 3 ) {
            case 0:
               byte = static_cast< char >( byte ^ 1 << tried % 8 );
               break;
            case 1:
               byte = 0;
               break;
            default:
               byte = '\xff';
            }
            if( changed == frame ) byte = static_cast< char >( byte ^ 1 );
            if( corrected ) correct( changed, record );
            FuzzWorld world( stream.setup );
            // One by one: the peer answers what it was told in between.
            for( size_t r = 0; r < record; ++r ) {
               world.session().receive( stream.frames[r].data(), stream.frames[r].size() );
            }
            const std::string before = world.text();
            try {
               world.session().receive( changed.data(), changed.size() );
               const uint64_t received = world.session().received();
               ASSERT_TRUE( corrected ) << stream.setup.type << " byte " << i;
               ASSERT_EQ( received, record + 1 );
               applied += world.text() != before;
            } catch( const Zek::StreamException & e ) {
               const std::string_view what = e.what();
               ASSERT_EQ( what.find( "malformed record " ), 0u ) << what;
               ASSERT_NE( what.find( ", attribute " ), what.npos ) << what;
               ASSERT_NE( what.find( ", offset " ), what.npos ) << what;
               ASSERT_EQ( world.text(), before ) << what;
            }
         }
      }
   }
   EXPECT_GT( applied, tried / 50 );
}

// -- Records that lie -------------------------------------------------------------------------

TEST( Hostile, setsAndKeyedValuesAreChecked ) {
   for( const auto & [key, second, expected] :
        { std::tuple( "aaab", "b", "a value with the key it stands under" ),
          std::tuple( "aaaa", "a", "keys in ascending order" ), std::tuple( "aaaa", "b", "" ) } ) {
      Statuses peer;
      peer.instance( 2, 259, 3, 3, "e1", []( auto & out ) { out.u8( 0 ); } );
      const std::string said = peer.send( 3, idOf( "Ip::IpIntfStatus", "mcaddr" ), Kind::value,
                                          [key = key, second = second]( auto & out ) {
                                             out.bytes( key, 4 );
                                             out.bytes( "aaaa", 4 );
                                             out.u32( 2 );
                                             out.text( "a" );
                                             out.text( second );
                                          } );
      EXPECT_EQ( said.empty() ? "" : said.substr( said.find( ": expected " ) + 11 ), expected );
   }
}

TEST( Hostile, whatIsNotKnownIsPassedOver ) {
   Interface w;
   const std::string before = w.world.text();
   auto anything = []( auto & out ) { out.text( "anything" ); };
   EXPECT_EQ( w.send( 3, 999, Kind::value, anything ), "" );
   // A type that is unknown, and one whose instances cannot be told by their attributes.
   for( const char * type : { "No::Such", "Ip::SourceIntf::SourceIntfSm" } ) {
      EXPECT_EQ( w.declare( type ), "" );
      EXPECT_EQ( w.instance( 1, Zek::entityAttr, 4, w.types, "x", anything ), "" );
      EXPECT_EQ( w.send( 4, 258, Kind::state, anything ), "" );
   }
   // A count that is a lie makes no table large.
   EXPECT_EQ( w.send( 3, 260, Kind::beginWhole, []( auto & out ) { out.u32( ~0u ); } ), "" );
   EXPECT_EQ( w.world.text(), before );
}

TEST( Hostile, aStateIsReadAsItsTypeWasDeclared ) {
   const auto & type = *Zek::typeNode( "Ip::IpIntfConfig" );
   auto attribute = [&]( const char * name ) { return Peer::declared( *type.attribute( name ) ); };
   const auto mss = attribute( "maxMssEgress" ), source = attribute( "configSource" ),
              secondary = attribute( "secondaryWithMask" );
   auto lying = [&]( Peer::Declared a, uint8_t size ) { return a.size = size, a; };
   const std::string text( "\0\0\0\2me", 6 );
   const std::string at = "'all/config/ipIntfConfig[e1]', attribute 0, offset ";
   struct Case {
      std::vector< Peer::Declared > attributes;
      std::string state;
      std::string expected;
      uint16_t mss;
   };
   const Case cases[] = {
      { { mss, source, secondary }, "\1\1" + text + '\1', "", 257 },
      { { source, secondary, mss }, text + "\1\1\1", "", 257 },
      // Unknown ones are passed over, whatever they are.
      { { { 900, 1, 3 }, { 901, 1, 0 }, { 902, 1, 255 }, mss },
        "xyz" + text + text + "\1\1",
        "",
        257 },
      // Another size is another attribute.
      { { lying( mss, 4 ), lying( source, 0 ), mss }, "xyzz" + text + "\1\1", "", 257 },
      { { mss, mss }, "\1\1\1\2", "", 258 },
      // What is malformed changes nothing.
      { { mss, source }, "\1\1", at + "23: expected the length of a value", 0 },
      { { mss, source },
        "\1\1" + text.substr( 0, 5 ),
        at + "27: expected a value of that length",
        0 },
      { { mss, { 900, 1, 200 } }, "\1\1xyz", at + "23: expected a value of that length", 0 },
      { { mss }, "\1\1\1", at + "23: expected the end of the record", 0 },
      { { mss, secondary }, "\1\1\2", at + "23: expected 0 or 1", 0 },
      { { mss, lying( attribute( "addrSource" ), 4 ) },
        std::string( "\1\1\0\0\0\x9", 6 ),
        at + "27: expected an enumerator's number",
        0 },
   };
   for( const Case & c : cases ) {
      Peer peer;
      for( const char * name : { "Zek::Dir", "Ip::Config" } ) peer.declare( name );
      peer.declare( "Ip::IpIntfConfig", c.attributes );
      peer.root();
      peer.instance( 1, Zek::entityAttr, 2, 2, "config" );
      peer.instance( 2, idOf( "Ip::Config", "ipIntfConfig" ), 3, 3, "e1" );
      EXPECT_EQ( peer.send( 3, 0, Kind::state,
                            [&]( auto & out ) { out.bytes( c.state.data(), c.state.size() ); } ),
                 c.expected );
      auto config = Zek::ptrCast< Ip::Config >( peer.world.tree()->entityAt( "all/config" ) );
      EXPECT_EQ( config->ipIntfConfig( Velon::IntfId( "e1" ) )->maxMssEgress(), c.mss );
   }
   Peer peer;
   EXPECT_EQ( peer.declare( "No::Such", std::vector< Peer::Declared >( 1025 ) ),
              "flow 0, attribute 1, offset 49: "
              "expected as many attributes as were counted, up to the quota" );
}

TEST( Hostile, aFlowThatIsTakenAgainLeavesTheFirstAlone ) {
   Interface w;
   const uint16_t forwarding = idOf( "Ip::IpIntfConfig", "forwarding" );
   w.instance( 2, 258, 3, 3, "e2" );
   EXPECT_EQ( w.send( 3, forwarding, Kind::value, []( auto & out ) { out.u8( 0 ); } ), "" );
   auto config = Zek::ptrCast< Ip::Config >( w.world.tree()->entityAt( "all/config" ) );
   EXPECT_TRUE( config->ipIntfConfig( Velon::IntfId( "e1" ) )->forwarding() );
   EXPECT_FALSE( config->ipIntfConfig( Velon::IntfId( "e2" ) )->forwarding() );
}

TEST( Hostile, aPathThatLeadsNowhereWaits ) {
   constexpr uint16_t children = Zek::entityAttr;
   for( const Body & nowhere :
        { path( 1, { { 6, "all" } } ), path( 1, { { 999, "" } } ),
          path( 1, { { children, "all" } } ),
          path( 2, { { children, "vrfs" }, { 258, std::string( 101, 'x' ) } } ) } ) {
      Interface w;
      w.world.tree()->entityIs( Ip::allVrfConfigFactory( "vrfs" ) );
      const std::string before = w.world.text();
      EXPECT_EQ( w.value( "l3Config", nowhere ), "" );
      EXPECT_EQ( w.in().held(), 1u );
      EXPECT_EQ( w.world.text(), before );
   }
}

TEST( Hostile, whatWaitsGoesWithItsFlow ) {
   Statuses peer;
   const Body absent = path( 1, { { Zek::entityAttr, "absent" } } );
   peer.instance( 2, 259, 3, 3, "e1", absent );
   EXPECT_EQ( peer.in().held(), 1u );
   peer.instance( 1, Zek::entityAttr, 2, 1, "directory" );
   EXPECT_EQ( peer.in().held(), 0u );

   // In number and size what waits is bounded.
   for( bool bytes : { false, true } ) {
      Statuses other;
      Quota & quota = other.in().quota;
      bytes ? quota.heldBytes = 100 : quota.held = 1;
      EXPECT_EQ( other.instance( 2, 259, 3, 3, "e1", absent ), "" );
      EXPECT_EQ( other.instance( 2, 259, 4, 3, bytes ? std::string( 100, 'x' ) : "e2", absent ),
                 "'all/status', attribute ipIntfStatus, offset 0: "
                 "expected fewer references that wait" );
   }
}

TEST( Hostile, whatIsWantedAgainWaitsForRoom ) {
   Statuses peer;
   const Body absent = path( 1, { { Zek::entityAttr, "absent" } } );
   for( uint32_t flow = 3; flow < 253; ++flow ) {
      const std::string key = "e" + std::to_string( flow );
      EXPECT_EQ( peer.instance( 2, 259, flow, 3, key, absent ), "" );
      EXPECT_EQ( peer.send( 2, 259, Kind::adopt,
                            [&]( auto & out ) {
                               Peer::named( out, flow, 3 );
                               out.text( key );
                               out.u8( 0 );
                            } ),
                 "" );
   }
   Kelmo::Session & session = peer.world.session();
   size_t written = session.output().size();
   EXPECT_LE( written, 4200u );
   EXPECT_FALSE( session.isAtRest() );
   while( !session.output().empty() ) {
      session.carried( session.output().size() );
      session.drain();
      written += session.output().size();
   }
   EXPECT_GT( written, 250u * 35 );
   EXPECT_TRUE( peer.in().held() == 0 && session.adapter().nboAttrLogOut().isClean() );
}

TEST( Hostile, namesAreNotMadeWithoutEnd ) {
   Peer peer;
   peer.declare( "Zek::Dir" );
   peer.root();
   peer.in().quota.nameBytes = 1 << 20;
   std::string said;
   for( uint32_t flow = 2; flow < 600 && said.empty(); ++flow ) {
      said = peer.instance( 1, Zek::entityAttr, flow, 1,
                            std::string( 4096, 'n' ) + std::to_string( flow ) );
   }
   EXPECT_EQ( said, "flow 0, attribute 0, offset 0: expected fewer names" );
}

TEST( Hostile, directoriesAreAsDeepAsMayBe ) {
   Interface w;
   for( uint32_t flow = 4; flow < 100; ++flow ) {
      EXPECT_EQ( w.instance( flow == 4 ? 1 : flow - 1, Zek::entityAttr, flow, 1, "d" ), "" );
   }
   EXPECT_EQ( w.in().refused(), 1u );
   size_t depth = 1;
   for( auto at = w.world.tree()->entity( "all" ); at; at = at->entity( "d" ) ) ++depth;
   EXPECT_EQ( depth, w.in().quota.depth );
}

TEST( Hostile, whatItsServerMountsIsACopyAgainAfterwards ) {
   Interface w;
   w.world.session().adapter().nboAttrLogOut().capacityIs( 0 );
   EXPECT_EQ( w.control( 65,
                         []( auto & out ) {
                            out.u32( 1 );
                            for( const char * text : { "all", "Zek::Dir", "w" } ) out.text( text );
                            out.u8( 0 );
                         } ),
              "" );
   w.world.recover(); // aborts where it does not
}

TEST( Hostile, aMessageIsOneLine ) {
   Interface w;
   w.instance( 1, Zek::entityAttr, 4, 1, std::string_view( "a\0\n", 3 ) );
   EXPECT_EQ( w.send( 4, 0, static_cast< Kind >( 9 ) ),
              "'all/a\\x00\\x0a', attribute 0, offset 10: expected a kind of record" );
   Interface other;
   other.instance( 1, Zek::entityAttr, 4, 1, std::string( 10000, 'x' ) );
   EXPECT_LT( other.send( 4, 0, static_cast< Kind >( 9 ) ).size(), 600u );
}

} // namespace ipstate::test
