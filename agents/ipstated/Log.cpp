#include "agents/ipstated/Log.h"

#include "agents/ipstated/Reflect.h"

#include "platform/Vistrel/Trace.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <sys/stat.h>
#include <utility>

namespace Ipstated {

namespace {

constexpr std::array levelNames{ "error", "warning", "notice", "info", "debug" };

/// What texts of one kind have in common: runs of digits count as one.
std::string
kindOf( std::string_view text ) {
   std::string kind;
   for( char each : text ) {
      const bool digit = isdigit( uint8_t( each ) );
      if( !digit || kind.empty() || kind.back() != '#' ) kind += digit ? '#' : each;
   }
   return kind;
}

/// Whether the descriptor is the one that a service manager has connected with the journal.
bool
isJournal( int fd ) {
   const char * stream = getenv( "JOURNAL_STREAM" );
   struct stat what;
   return stream && fstat( fd, &what ) == 0 &&
          stream == std::to_string( what.st_dev ) + ":" + std::to_string( what.st_ino );
}

std::string
timeText() {
   timespec now{};
   clock_gettime( CLOCK_REALTIME, &now );
   tm parts{};
   gmtime_r( &now.tv_sec, &parts );
   char text[40];
   const size_t length = strftime( text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts );
   snprintf( text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000 );
   return text;
}

} // namespace

std::optional< LogLevel >
logLevel( std::string_view name ) {
   for( size_t i = 0; i < levelNames.size(); ++i ) {
      if( name == levelNames[i] ) return LogLevel( size_t( LogLevel::error ) + i );
   }
   return {};
}

const char *
nameOf( LogLevel level ) {
   return levelNames[size_t( level ) - size_t( LogLevel::error )];
}

Log::Log( int fd ) : outlet_( fd ), journal_( isJournal( fd ) ) {}

Log::~Log() {
   if( traces_ ) Vistrel::sinkIs( &Vistrel::standardErrorSink );
}

void
Log::tracesAreTaken() {
   // There is one such log in a process, and traces may come until its end.
   static Log * taker = nullptr;
   static const Vistrel::Sink sink{ []( void *, const Vistrel::Message & message ) {
                                      taker->append( LogLevel::debug,
                                                     std::string( message.handle ) + "/" +
                                                        std::to_string( message.level ) + " " +
                                                        message.source + ":" + message.function +
                                                        " " + std::string( message.text ) );
                                   },
                                    nullptr };
   taker = this;
   traces_ = true;
   Vistrel::sinkIs( &sink );
}

void
Log::write( LogLevel level, std::string_view text, Time now ) noexcept {
   if( level > most_ ) return;
   try {
      if( now >= periodEnd_ ) {
         tellRepeated( now );
         periodEnd_ = now + period;
      }
      const bool known = kinds_.size() < mostKinds;
      Kind & kind = kinds_[known ? kindOf( text ) : std::string()];
      if( kind.written < mostRepeats ) {
         ++kind.written;
         append( level, text );
      } else {
         ++kind.more;
         ++repeated_;
         kind.level = level;
         kind.last = text;
      }
   } catch( const std::bad_alloc & ) {
      ++dropped_;
   }
   flush();
}

void
Log::tellRepeated( Time ) {
   for( const auto & [name, kind] : kinds_ ) {
      if( kind.more == 1 ) {
         append( kind.level, kind.last );
      } else if( kind.more > 1 ) {
         append( kind.level, kind.last + " (and " + std::to_string( kind.more - 1 ) +
                                " more like it within a minute)" );
      }
   }
   kinds_.clear();
}

void
Log::append( LogLevel level, std::string_view text ) {
   std::string line = journal_ ? "<" + std::to_string( int( level ) ) + ">"
                               : timeText() + " ipstated: " + nameOf( level ) + ": ";
   line += printable( text ) + "\n";
   if( bytes_.size() + line.size() > mostBytes ) flush();
   if( bytes_.size() + line.size() > mostBytes ) {
      ++dropped_;
      return;
   }
   if( dropped_ > droppedTold_ ) {
      const uint64_t count = dropped_ - std::exchange( droppedTold_, dropped_ );
      append( LogLevel::warning,
              std::to_string( count ) + " lines were dropped: nobody read them" );
   }
   bytes_ += line;
}

void
Log::flush() noexcept {
   while( !bytes_.empty() ) {
      const ssize_t taken = outlet_.write( bytes_ );
      if( taken < 0 ) bytes_.clear(); // nobody will ever read it
      if( taken <= 0 ) return;
      bytes_.erase( 0, size_t( taken ) );
   }
}

std::optional< Log::Time >
Log::deadline() const {
   for( const auto & [name, kind] : kinds_ ) {
      if( kind.more ) return periodEnd_;
   }
   return {};
}

void
Log::serve( Time now ) {
   if( now >= periodEnd_ ) tellRepeated( now );
   flush();
}

} // namespace Ipstated
