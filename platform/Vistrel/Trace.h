// Traces: what the code did, for people who search for a fault.
//
// A source file has one handle with static storage, named after it:
//
//    constinit Vistrel::TraceHandle traceHandle( "Ip6" );
//    ...
//    Vistrel::trace( traceHandle, 8, "sasRule1", "sasRule1:SA: ", sa, " SB: ", sb );
//
// Levels 0 to 9 are switched one by one and are off by default. An off trace costs one load and
// a branch; its text is built only when it is on. A message goes into the handle's ring, which
// keeps the last ones, and to the sink, which by default is standard error.
//
// Levels are set for all handles by a setting, from the environment variable IPSTATE_TRACE at the
// first trace and by settingIs() at run time:
//
//    setting = "" | entry { "," entry }         entry = pattern [ "/" levels ]
//    levels  = "*" | range { "+" range }        range = digit [ "-" digit ]
//
// A pattern is a handle's name in which "*" stands for any run of bytes; an entry without levels
// means all ten. A handle has the levels of all entries that match it, as in
// "Ip6/8,SrcIntf/0-8,Ira*/0-3+8". A malformed variable is reported once on standard error and
// ignored as a whole.
//
// Threads: any thread may use any handle, levels and settings may be changed meanwhile; atomics
// only, no locks. A handle must have static storage in a module that is never unloaded.

#pragma once

#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#define VISTREL_EXPORT __attribute__( ( visibility( "default" ) ) )

namespace Vistrel {

/// One message on its way to a sink. Valid during the call.
struct Message {
   const char * handle;   /// name of the handle
   const char * source;   /// source file, without directory and extension
   const char * function; /// as in "sasRule1"
   unsigned level;
   uint64_t time; /// nanoseconds since 1970, UTC
   std::string_view text;
};

/// Where messages go. `write` may be called by several threads at once and must not throw.
struct Sink {
   void ( *write )( void * context, const Message & message );
   void * context;
};

/// "12:34:56.123456 Ip6/8 Ip6:sasRule1 text" and a newline on standard error, one write a line.
VISTREL_EXPORT extern const Sink standardErrorSink;

/// Sends all later messages to `sink`, null for nowhere, and returns the sink before. The caller
/// keeps the sink alive; a message already on its way may still arrive at the one replaced.
VISTREL_EXPORT const Sink * sinkIs( const Sink * sink );

/// Replaces the setting and applies it to all handles, also those not used yet; levels set on
/// single handles are lost. False for a malformed text: nothing is changed then, and `error`, if
/// given, says what was expected at which offset.
VISTREL_EXPORT bool settingIs( std::string_view text, std::string * error = nullptr );
/// The present setting as it was given.
VISTREL_EXPORT std::string setting();

/// One message as the ring kept it.
struct Record {
   uint64_t number; /// counts the handle's messages from 0
   uint64_t time;   /// nanoseconds since 1970, UTC
   unsigned level;
   const char * function;
   std::string text; /// its first TraceHandle::ringTextBytes bytes
};

class VISTREL_EXPORT TraceHandle {
 public:
   static constexpr unsigned levelCount = 10;
   /// Records that a ring keeps, and the bytes of text of each.
   static constexpr size_t ringRecords = 64;
   static constexpr size_t ringTextBytes = 224;

   /// `source` is the source file's name where it is not the handle's. Both are kept as
   /// pointers.
   constexpr explicit TraceHandle( const char * name, const char * source = nullptr )
      : name_( name ),
        source_( source ? source : name ) {}
   TraceHandle( const TraceHandle & ) = delete;
   TraceHandle & operator=( const TraceHandle & ) = delete;

   const char * name() const { return name_; }
   const char * source() const { return source_; }

   /// True if messages of `level` (0 to 9) are wanted.
   bool enabled( unsigned level ) {
      if( !( levels_.load( std::memory_order_relaxed ) >> ( level & 15 ) & 1 ) ) [[likely]] {
         return false;
      }
      return enabledSlow( level );
   }
   /// Passes a message on, whether its level is on or not. `function` is kept as a pointer.
   void emit( unsigned level, const char * function, std::string_view text );

   /// The levels that are on, bit n for level n.
   uint32_t levels();
   /// Switches all levels, or one, until the next settingIs().
   void levelsAre( uint32_t levels );
   void levelIs( unsigned level, bool on );

   /// What the ring holds, oldest first. Messages written meanwhile may be missing.
   std::vector< Record > records() const;
   /// Messages that found their place in the ring taken by a thread that was being overtaken.
   uint64_t lost() const { return lost_.load( std::memory_order_relaxed ); }

   /// All handles that were used so far: first one, then next() until null.
   static TraceHandle * first();
   TraceHandle * next() const { return next_; }
   /// The used handle of this name, or null.
   static TraceHandle * find( std::string_view name );

 private:
   friend bool settingIs( std::string_view text, std::string * error );
   struct Ring;
   // The low bits of the levels word; above them stands the version of the setting that gave
   // them, 0 until the first use looks them up. All levels seem on until then.
   static constexpr uint32_t levelMask = ( 1u << levelCount ) - 1;

   bool enabledSlow( unsigned level );
   void join();
   void applySetting();
   void keep( const Message & message );

   const char * name_;
   const char * source_;
   std::atomic< uint32_t > levels_{ levelMask };
   std::atomic< bool > joined_{ false };
   TraceHandle * next_ = nullptr;
   std::atomic< Ring * > ring_{ nullptr };
   std::atomic< uint64_t > lost_{ 0 };
};

/// Appends the text of one part of a message: strings as they are, bools as true and false,
/// numbers in decimal, values with appendTo() by it, callables by what they return (called only
/// now), everything else by operator<<.
template< class T >
void
appendPart( std::string & out, const T & part ) {
   if constexpr( std::is_same_v< T, bool > ) {
      out.append( part ? "true" : "false" );
   } else if constexpr( std::is_same_v< T, char > ) {
      out.push_back( part );
   } else if constexpr( std::is_convertible_v< const T &, std::string_view > ) {
      out.append( std::string_view( part ) );
   } else if constexpr( requires { part.appendTo( out ); } ) {
      part.appendTo( out );
   } else if constexpr( requires { appendTo( part, out ); } ) {
      appendTo( part, out );
   } else if constexpr( std::is_integral_v< T > ) {
      char digits[24];
      out.append( digits, std::to_chars( digits, digits + sizeof digits, part ).ptr );
   } else if constexpr( std::is_invocable_v< const T & > ) {
      appendPart( out, part() );
   } else {
      std::ostringstream stream;
      stream << part;
      out.append( stream.str() );
   }
}

/// How trace() hands a part on: small plain values by copy, so that a value which lives in
/// registers need not be put into memory while the level is off.
template< class T >
using PartArgument =
   std::conditional_t< std::is_trivially_copyable_v< T > && !std::is_array_v< T > &&
                          sizeof( T ) <= 2 * sizeof( void * ),
                       T, const T & >;

/// The part of trace() that runs only when the level is on.
template< class... Arguments >
[[gnu::noinline, gnu::cold]] void
emitParts( TraceHandle & handle, unsigned level, const char * function, Arguments... parts ) {
   std::string text;
   ( appendPart( text, parts ), ... );
   handle.emit( level, function, text );
}

/// Emits the texts of `parts` one after another, if `level` of `handle` is on.
template< class... Parts >
inline void
trace( TraceHandle & handle, unsigned level, const char * function, const Parts &... parts ) {
   if( handle.enabled( level ) ) [[unlikely]] {
      emitParts< PartArgument< Parts >... >( handle, level, function, parts... );
   }
}

} // namespace Vistrel
