// ipstated: mirrors the kernel's interfaces into the records and shows them.
//
// Prints the table of all interfaces, then, if asked, why each would send from which address to a
// destination, then the addresses of registered source interfaces, then a line for every
// notification until interrupted. Ends before the last with --once, and where standard output is
// no terminal unless something is asked for that goes on. With --dump, prints a part of the tree
// instead; with --types, the types that it is made of.

#include "agents/ipstated/Agent.h"
#include "agents/ipstated/Dump.h"

#include "framework/Exception.h"
#include "framework/Version.h"
#include "framework/inspect/Place.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace Ipstated;

enum Status { asAsked = 0, badUsage = 1, refused = 2, noSuchRecord = 3 };

/// Fills the places of standard descriptors that are closed, lest a socket gets written to as if it
/// were the output. Whether standard output was open.
bool
standardDescriptorsAreTaken() {
   bool outputOpen = true;
   for( int fd : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO } ) {
      if( fcntl( fd, F_GETFD ) < 0 && errno == EBADF ) {
         outputOpen = outputOpen && fd != STDOUT_FILENO;
         if( open( "/dev/null", O_RDWR ) < 0 ) {
            return false;
         }
      }
   }
   return outputOpen;
}

/// On standard error, which may be stuck: it is given a moment, not more.
int
fail( Status status, const std::string & lines ) {
   Outlet errors( STDERR_FILENO );
   std::string_view left = lines;
   for( int tries = 0; !left.empty() && tries < 20; ++tries ) {
      const ssize_t taken = errors.write( left );
      if( taken < 0 ) break;
      left.remove_prefix( size_t( taken ) );
      pollfd ready{ errors.fd(), POLLOUT, 0 };
      if( !left.empty() ) poll( &ready, 1, 10 );
   }
   return status;
}

/// Prints all of it: nothing else is to be done.
void
print( const std::string & text ) {
   Output output( STDOUT_FILENO );
   output.write( text );
   while( output.isWaiting() ) {
      output.flush();
      pollfd ready{ output.fd(), POLLOUT, 0 };
      if( output.isWaiting() ) poll( &ready, 1, -1 );
   }
   output.check();
}

int
run( const std::vector< std::string > & arguments ) {
   const bool isTerminal = isatty( STDOUT_FILENO );
   const auto read = [&] { return parse( arguments, isTerminal ); };
   const Parsed parsed = read();
   if( parsed.help ) {
      print( helpText() );
      return asAsked;
   }
   if( parsed.version ) {
      print( std::string( "ipstated " ) + Zek::version() + "\n" );
      return asAsked;
   }
   if( !parsed.faults.empty() ) {
      std::string lines;
      for( const std::string & fault : parsed.faults ) lines += "ipstated: " + fault + "\n";
      return fail( badUsage, lines + "Try 'ipstated --help'.\n" );
   }
   const Options & options = parsed.options;
   if( options.check ) return asAsked;
   if( options.types ) {
      print( typeNames() );
      return asAsked;
   }
   Log log( STDERR_FILENO );
   log.levelIs( options.logLevel );
   log.tracesAreTaken();
   Service service;
   Agent agent( options, log, service, read );
   agent.run();
   return asAsked;
}

} // namespace

int
main( int argc, char ** argv ) {
   if( !standardDescriptorsAreTaken() ) {
      return fail( refused, "ipstated: standard output is closed\n" );
   }
   try {
      return run( { argv + 1, argv + argc } );
   } catch( const Zek::Inspect::NotFoundException & missing ) {
      return fail( noSuchRecord, std::string( "ipstated: " ) + missing.what() + "\n" );
   } catch( const Zek::RangeException & noPath ) {
      return fail( badUsage, std::string( "ipstated: " ) + noPath.what() + "\n" );
   } catch( const std::exception & error ) {
      return fail( refused, std::string( "ipstated: " ) + error.what() + "\n" );
   }
}
