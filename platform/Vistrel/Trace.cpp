#include "platform/Vistrel/Trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace Vistrel {

namespace {

// Settings

constexpr uint32_t allLevels = ( 1u << TraceHandle::levelCount ) - 1;

struct Rule {
   std::string pattern;
   uint32_t levels;
};

// Immutable once published. A replaced setting is kept: another thread may be reading it.
struct Setting {
   std::string text;
   std::vector< Rule > rules;
   const Setting * replaced = nullptr;
   // Fits above the levels in a handle's word; never 0.
   uint32_t version = 1;
};

constinit std::atomic< const Setting * > currentSetting{ nullptr };
constinit std::atomic< TraceHandle * > allHandles{ nullptr };

bool
matches( std::string_view pattern, std::string_view name ) {
   size_t p = 0;
   size_t n = 0;
   // Where to go on when a longer run for the last star must be tried.
   size_t star = std::string_view::npos;
   size_t starName = 0;
   while( n < name.size() ) {
      if( p < pattern.size() && pattern[p] == '*' ) {
         star = p++;
         starName = n;
      } else if( p < pattern.size() && pattern[p] == name[n] ) {
         ++p;
         ++n;
      } else if( star != std::string_view::npos ) {
         p = star + 1;
         n = ++starName;
      } else {
         return false;
      }
   }
   return pattern.find_first_not_of( '*', p ) == std::string_view::npos;
}

constexpr bool
isDigit( char c ) {
   return c >= '0' && c <= '9';
}

// Reads "8", "0-8+9" or "*" at `at` and steps behind it; 0 if there is none.
uint32_t
readLevels( std::string_view text, size_t & at ) {
   if( at < text.size() && text[at] == '*' ) {
      ++at;
      return allLevels;
   }
   uint32_t levels = 0;
   for( ;; ) {
      if( at == text.size() || !isDigit( text[at] ) ) return 0;
      unsigned low = static_cast< unsigned >( text[at++] - '0' );
      unsigned high = low;
      if( at < text.size() && text[at] == '-' ) {
         ++at;
         if( at == text.size() || !isDigit( text[at] ) ) return 0;
         high = static_cast< unsigned >( text[at] - '0' );
         if( high < low ) return 0;
         ++at;
      }
      levels |= ( 2u << high ) - ( 1u << low );
      if( at == text.size() || text[at] != '+' ) return levels;
      ++at;
   }
}

// The setting of a text, or null with what was expected where.
std::unique_ptr< Setting >
parse( std::string_view text, std::string & error ) {
   auto setting = std::make_unique< Setting >();
   setting->text = text;
   auto expected = [&]( const char * what, size_t offset ) {
      error = std::string( what ) + " expected at offset " + std::to_string( offset ) + " of '" +
              std::string( text ) + "'";
      return nullptr;
   };
   for( size_t at = 0; !text.empty(); ++at ) {
      size_t end = std::min( text.find_first_of( ",/", at ), text.size() );
      if( end == at ) return expected( "handle pattern", at );
      Rule rule{ std::string( text.substr( at, end - at ) ), allLevels };
      at = end;
      if( at < text.size() && text[at] == '/' ) {
         rule.levels = readLevels( text, ++at );
         if( rule.levels == 0 ) return expected( "level", at );
      }
      setting->rules.push_back( std::move( rule ) );
      if( at == text.size() ) break;
      if( text[at] != ',' ) return expected( "','", at );
   }
   return setting;
}

// The setting in force; the first call takes it from the environment.
const Setting *
settingNow() {
   const Setting * now = currentSetting.load();
   if( now ) return now;
   const char * variable = std::getenv( "IPSTATE_TRACE" );
   std::string error;
   std::unique_ptr< Setting > made = parse( variable ? variable : "", error );
   bool malformed = !made;
   if( malformed ) made = std::make_unique< Setting >();
   if( !currentSetting.compare_exchange_strong( now, made.get() ) ) return now;
   if( malformed ) std::fprintf( stderr, "IPSTATE_TRACE ignored: %s\n", error.c_str() );
   return made.release();
}

// Sinks

void
writeToStandardError( void *, const Message & message ) {
   auto seconds = static_cast< time_t >( message.time / 1000000000 );
   auto micros = static_cast< unsigned >( message.time / 1000 % 1000000 );
   tm local{};
   localtime_r( &seconds, &local );
   char head[32];
   std::snprintf( head, sizeof head, "%02d:%02d:%02d.%06u ", local.tm_hour, local.tm_min,
                  local.tm_sec, micros );
   std::string line( head );
   line.append( message.handle ).append( "/" ).append( std::to_string( message.level ) );
   line.append( " " ).append( message.source ).append( ":" ).append( message.function );
   line.append( " " ).append( message.text ).append( "\n" );
   std::fwrite( line.data(), 1, line.size(), stderr );
}

} // namespace

constinit const Sink standardErrorSink{ &writeToStandardError, nullptr };

namespace {

constinit std::atomic< const Sink * > currentSink{ &standardErrorSink };

} // namespace

const Sink *
sinkIs( const Sink * sink ) {
   return currentSink.exchange( sink, std::memory_order_acq_rel );
}

bool
settingIs( std::string_view text, std::string * error ) {
   std::string reason;
   std::unique_ptr< Setting > made = parse( text, reason );
   if( !made ) {
      if( error ) *error = std::move( reason );
      return false;
   }
   made->replaced = settingNow();
   do {
      made->version = ( made->replaced->version + 1 ) & ( ~0u >> TraceHandle::levelCount );
      if( made->version == 0 ) made->version = 1;
   } while( !currentSetting.compare_exchange_weak( made->replaced, made.get() ) );
   made.release();
   for( TraceHandle * handle = TraceHandle::first(); handle; handle = handle->next() ) {
      handle->applySetting();
   }
   return true;
}

std::string
setting() {
   return settingNow()->text;
}

// The last messages of one handle.
//
// A writer takes a number, which names its slot, and claims the slot by making its state odd; the
// words of the record are stored in between, and the state tells the number when it is done. A
// slot that another writer still fills, or a later one has filled, is left to that one. A reader
// takes a slot only if its state was the same even number before and after. The words are
// atomics with release and acquire, so that a reader that sees a newer word sees the newer state.
struct TraceHandle::Ring {
   struct Slot {
      // 0: never used; 2n+1: record n is being written; 2n+2: record n stands.
      std::atomic< uint64_t > state{ 0 };
      std::atomic< uint64_t > time{ 0 };
      std::atomic< const char * > function{ nullptr };
      std::atomic< uint32_t > level{ 0 };
      std::atomic< uint32_t > size{ 0 };
      std::atomic< uint64_t > text[ringTextBytes / 8] = {};
   };
   std::atomic< uint64_t > next{ 0 };
   Slot slots[ringRecords];
};

void
TraceHandle::keep( const Message & message ) {
   Ring * ring = ring_.load( std::memory_order_acquire );
   if( !ring ) {
      auto made = std::make_unique< Ring >();
      if( ring_.compare_exchange_strong( ring, made.get(), std::memory_order_acq_rel ) ) {
         ring = made.release();
      }
   }
   uint64_t number = ring->next.fetch_add( 1, std::memory_order_relaxed );
   Ring::Slot & slot = ring->slots[number % ringRecords];
   uint64_t state = slot.state.load( std::memory_order_relaxed );
   if( state % 2 == 1 || state > 2 * number ||
       !slot.state.compare_exchange_strong( state, 2 * number + 1, std::memory_order_acq_rel ) ) {
      lost_.fetch_add( 1, std::memory_order_relaxed );
      return;
   }
   size_t size = std::min( message.text.size(), ringTextBytes );
   slot.time.store( message.time, std::memory_order_release );
   slot.function.store( message.function, std::memory_order_release );
   slot.level.store( message.level, std::memory_order_release );
   slot.size.store( static_cast< uint32_t >( size ), std::memory_order_release );
   for( size_t at = 0; at < size; at += 8 ) {
      uint64_t word = 0;
      std::memcpy( &word, message.text.data() + at, std::min< size_t >( 8, size - at ) );
      slot.text[at / 8].store( word, std::memory_order_release );
   }
   slot.state.store( 2 * number + 2, std::memory_order_release );
}

std::vector< Record >
TraceHandle::records() const {
   std::vector< Record > records;
   const Ring * ring = ring_.load( std::memory_order_acquire );
   if( !ring ) return records;
   for( const Ring::Slot & slot : ring->slots ) {
      uint64_t state = slot.state.load( std::memory_order_acquire );
      if( state == 0 || state % 2 == 1 ) continue;
      Record record{ state / 2 - 1,
                     slot.time.load( std::memory_order_acquire ),
                     slot.level.load( std::memory_order_acquire ),
                     slot.function.load( std::memory_order_acquire ),
                     {} };
      size_t size = slot.size.load( std::memory_order_acquire );
      char text[ringTextBytes];
      for( size_t at = 0; at < size; at += 8 ) {
         uint64_t word = slot.text[at / 8].load( std::memory_order_acquire );
         std::memcpy( text + at, &word, 8 );
      }
      if( slot.state.load( std::memory_order_relaxed ) != state ) continue;
      record.text.assign( text, size );
      records.push_back( std::move( record ) );
   }
   std::sort( records.begin(), records.end(),
              []( const Record & a, const Record & b ) { return a.number < b.number; } );
   return records;
}

void
TraceHandle::emit( unsigned level, const char * function, std::string_view text ) {
   join();
   auto now = std::chrono::system_clock::now().time_since_epoch();
   auto time = std::chrono::duration_cast< std::chrono::nanoseconds >( now ).count();
   Message message{ name_, source_, function, level, static_cast< uint64_t >( time ), text };
   keep( message );
   if( const Sink * sink = currentSink.load( std::memory_order_acquire ) ) {
      sink->write( sink->context, message );
   }
}

// Puts the handle into the list, once, and gives it its levels.
void
TraceHandle::join() {
   if( !joined_.exchange( true ) ) {
      TraceHandle * head = allHandles.load();
      do {
         next_ = head;
      } while( !allHandles.compare_exchange_weak( head, this ) );
      applySetting();
   } else if( levels_.load() >> levelCount == 0 ) {
      applySetting();
   }
}

// Whoever changes the setting walks the list afterwards, and whoever joins the list looks at the
// setting afterwards: the one that comes last sees the other, so no handle keeps an old setting.
// Levels that were set by hand under the present setting stay.
void
TraceHandle::applySetting() {
   for( ;; ) {
      uint32_t before = levels_.load();
      const Setting * now = settingNow();
      if( before >> levelCount == now->version ) return;
      uint32_t levels = 0;
      for( const Rule & rule : now->rules ) {
         if( matches( rule.pattern, name_ ) ) levels |= rule.levels;
      }
      levels_.compare_exchange_strong( before, now->version << levelCount | levels );
   }
}

bool
TraceHandle::enabledSlow( unsigned level ) {
   if( levels_.load() >> levelCount == 0 ) join();
   return ( levels_.load( std::memory_order_relaxed ) & levelMask ) >> ( level & 15 ) & 1;
}

uint32_t
TraceHandle::levels() {
   join();
   return levels_.load() & levelMask;
}

void
TraceHandle::levelsAre( uint32_t levels ) {
   join();
   uint32_t before = levels_.load();
   while( !levels_.compare_exchange_weak( before,
                                          ( before & ~levelMask ) | ( levels & levelMask ) ) ) {}
}

void
TraceHandle::levelIs( unsigned level, bool on ) {
   join();
   uint32_t bit = 1u << ( level & 15 ) & levelMask;
   if( on ) {
      levels_.fetch_or( bit );
   } else {
      levels_.fetch_and( ~bit );
   }
}

TraceHandle *
TraceHandle::first() {
   return allHandles.load();
}

TraceHandle *
TraceHandle::find( std::string_view name ) {
   for( TraceHandle * handle = first(); handle; handle = handle->next() ) {
      if( name == handle->name() ) return handle;
   }
   return nullptr;
}

} // namespace Vistrel
