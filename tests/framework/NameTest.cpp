#include "framework/Name.h"
#include "framework/Exception.h"
#include "framework/Interner.h"
#include "framework/Ptr.h"
#include "framework/String.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

using Zek::Name;
using Zek::String;

namespace {

// Made before main(), in no particular order with the library's own initialisers.
const Name madeEarly( "made early" );

template< class T >
std::string
printed( const T & value ) {
   std::ostringstream out;
   out << value;
   return out.str();
}

std::string
textOf( std::mt19937_64 & random, size_t maxSize ) {
   std::string text( random() % ( maxSize + 1 ), '\0' );
   for( char & c : text ) c = static_cast< char >( random() );
   return text;
}

TEST( Name, IsTheSameHoweverItWasMade ) {
   EXPECT_EQ( madeEarly, Name( "made early" ) );
   Name a( "Ethernet1" );
   EXPECT_EQ( a, Name( std::string( "Ethernet1" ) ) );
   EXPECT_EQ( a, Name( std::string_view( "Ethernet1/1" ).substr( 0, 9 ) ) );
   EXPECT_EQ( a, Name( String( "Ethernet1" ) ) );
   EXPECT_EQ( a.charPtr(), Name( "Ethernet1" ).charPtr() );
   EXPECT_TRUE( a == "Ethernet1" && a != "Ethernet" && a == String( "Ethernet1" ) );
   EXPECT_EQ( a.hash(), String( "Ethernet1" ).hash() );
   EXPECT_EQ( a.reversedHash(), Zek::bitReverse( a.hash() ) );
   EXPECT_EQ( printed( a ), "Ethernet1" );
   EXPECT_STREQ( a.charPtr(), "Ethernet1" );
}

TEST( Name, IsEmptyByDefaultAndFromNothing ) {
   const char * null = nullptr;
   for( Name empty : { Name(), Name( "" ), Name( null ), Name( String() ) } ) {
      EXPECT_EQ( empty, Name() );
      EXPECT_TRUE( empty.empty() && !empty );
      EXPECT_STREQ( empty.charPtr(), "" );
      EXPECT_EQ( empty.hash(), String().hash() );
   }
}

TEST( Name, OrdersByBytes ) {
   std::vector< Name > sorted = {
      "", std::string_view( "\0", 1 ), "Ethernet1", "Ethernet10", "Ethernet2", "a", "ab", "\x80"
   };
   for( size_t i = 0; i < sorted.size(); ++i ) {
      for( size_t j = 0; j < sorted.size(); ++j ) {
         EXPECT_EQ( sorted[i] < sorted[j], i < j ) << sorted[i] << " " << sorted[j];
      }
   }
}

TEST( Name, IsJoinedWithASeparatorBetweenTexts ) {
   EXPECT_EQ( Name::joined( "ip", "/", "status" ), "ip/status" );
   EXPECT_EQ( Name::joined( "", "/", "status" ), "status" );
   EXPECT_EQ( Name::joined( "ip", "/", "" ), "ip" );
}

TEST( Name, IsFoundOnlyOnceMade ) {
   Name found( "before" );
   size_t texts = Zek::Interner::texts();
   EXPECT_FALSE( Name::find( "never made by anyone", found ) );
   EXPECT_EQ( found, "before" );
   EXPECT_EQ( Zek::Interner::texts(), texts );
   EXPECT_TRUE( Name::find( "made early", found ) );
   EXPECT_EQ( found, madeEarly );
}

// Texts of one hash are easily found: the second word of each makes up for what the first one did.
TEST( Name, StandsFastAmongThoseChosenToShareItsHash ) {
   constexpr uint64_t odd = 0x9e3779b97f4a7c15u;
   auto text = []( uint64_t n, bool chosen ) {
      uint64_t h = ( 16 * odd ^ n ) * odd;
      h ^= h >> 32;
      const uint64_t words[] = { n, chosen ? h : ~n };
      return std::string( reinterpret_cast< const char * >( words ), sizeof words );
   };
   ASSERT_EQ( Zek::textHash( text( 1, true ) ), Zek::textHash( text( 2, true ) ) );
   auto seconds = [&]( bool chosen ) {
      const auto start = std::chrono::steady_clock::now();
      for( uint64_t n = 0; n < 20'000; ++n ) {
         const Name made( text( n, chosen ) );
         EXPECT_EQ( made.view(), text( n, chosen ) );
      }
      return std::chrono::duration< double >( std::chrono::steady_clock::now() - start ).count();
   };
   const double any = seconds( false ), chosen = seconds( true );
   EXPECT_LT( chosen, 20 * any ); // a list took some 500 times as long
}

// So many that some share their hash, and with sizes that leave no chunk evenly filled.
TEST( Name, StandsFastAmongManyOthers ) {
   std::mt19937_64 random( 1 );
   std::map< std::string, Name > names;
   std::set< uint32_t > hashes;
   for( int i = 0; i < 250000; ++i ) {
      std::string text = "name" + std::to_string( i );
      if( i % 20000 == 0 ) text += std::string( random() % 3000000, 'x' );
      Name name( text );
      hashes.insert( name.hash() );
      names.emplace( text, name );
   }
   EXPECT_LT( hashes.size(), names.size() );
   EXPECT_GT( hashes.size(), names.size() - 100 );
   for( const auto & [text, name] : names ) {
      ASSERT_EQ( name.view(), text );
      ASSERT_EQ( Name( text ), name );
      ASSERT_EQ( name.charPtr()[text.size()], '\0' );
   }
}

// The threads wait for each other before each name, so that they often race to put it in.
TEST( Name, IsOneForAllThreadsThatMakeItAtOnce ) {
   constexpr int count = 10000;
   constexpr int threads = 2;
   size_t before = Zek::Interner::texts();
   std::vector< std::vector< Name > > made( threads, std::vector< Name >( count ) );
   std::atomic< int > arrived{ 0 };
   std::vector< std::thread > running;
   for( int t = 0; t < threads; ++t ) {
      running.emplace_back( [&, t] {
         for( int n = 0; n < count; ++n ) {
            std::string text = "shared" + std::to_string( n );
            ++arrived;
            while( arrived < threads * ( n + 1 ) ) std::this_thread::yield();
            made[t][n] = Name( text );
         }
      } );
   }
   for( std::thread & thread : running ) thread.join();
   EXPECT_EQ( Zek::Interner::texts() - before, size_t( count ) );
   for( int n = 0; n < count; ++n ) {
      ASSERT_EQ( made[0][n], "shared" + std::to_string( n ) );
      ASSERT_EQ( made[1][n], made[0][n] );
   }
}

TEST( String, SharesItsTextUntilOneOfTheCopiesGrows ) {
   String a( "abc" );
   String b( a );
   EXPECT_EQ( a.charPtr(), b.charPtr() );
   b += 'd';
   EXPECT_EQ( a, "abc" );
   EXPECT_EQ( b, "abcd" );
   const String & same = b;
   b = same;
   EXPECT_EQ( b, "abcd" );
   String moved( std::move( b ) );
   EXPECT_EQ( moved, "abcd" );
   EXPECT_EQ( std::string( moved.begin(), moved.end() ), "abcd" );
   EXPECT_EQ( String( moved.begin() + 1, moved.end() - 1 ), "bc" );
   EXPECT_EQ( printed( "x" + moved + "y" ), "xabcdy" );
   EXPECT_EQ( String( static_cast< const char * >( nullptr ) ), String() );
   EXPECT_EQ( sizeof( String ), 8u );
}

TEST( String, BehavesAsAPlainString ) {
   std::mt19937_64 random( 2 );
   constexpr size_t count = 5;
   String strings[count];
   std::string model[count];
   for( int step = 0; step < 50000; ++step ) {
      size_t a = random() % count;
      size_t b = random() % count;
      std::string text = textOf( random, 6 );
      switch( random() % 6 ) {
      case 0:
         strings[a] = String( text );
         model[a] = text;
         break;
      case 1:
         strings[a] = strings[b];
         model[a] = model[b];
         break;
      case 2:
         strings[a] += text;
         model[a] += text;
         break;
      case 3: // also of a string to itself
         strings[a] += strings[b];
         model[a] += std::string( model[b] );
         break;
      case 4: // a part of its own text
         strings[a] += strings[a].view().substr( model[a].size() / 2 );
         model[a] += model[a].substr( model[a].size() / 2 );
         break;
      case 5:
         strings[a] = strings[a] + String( text );
         model[a] += text;
         break;
      }
      if( model[a].size() > 1000 ) {
         strings[a] = String();
         model[a].clear();
      }
      ASSERT_EQ( strings[a].view(), model[a] );
      ASSERT_EQ( strings[a].charPtr()[model[a].size()], '\0' );
      ASSERT_EQ( strings[a] < strings[b], model[a] < model[b] );
      ASSERT_EQ( strings[a] == strings[b], model[a] == model[b] );
      if( model[a] == model[b] ) {
         ASSERT_EQ( strings[a].hash(), strings[b].hash() );
      }
   }
}

TEST( String, CopiesMayLiveOnOtherThreadsOnceCountsAreAtomic ) {
   Zek::VFPtrInterface::threadSafePointers_ = true;
   String shared( "shared" );
   std::vector< std::thread > running;
   for( int t = 0; t < 4; ++t ) {
      running.emplace_back( [mine = shared]() mutable {
         for( int i = 0; i < 1000; ++i ) {
            String copy( mine );
            copy += "more";
            mine = copy.size() < 100 ? copy : String( "short" );
         }
      } );
   }
   for( std::thread & thread : running ) thread.join();
   EXPECT_EQ( shared, "shared" );
   Zek::VFPtrInterface::threadSafePointers_ = false;
}

} // namespace
