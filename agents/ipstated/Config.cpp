#include "agents/ipstated/Config.h"

#include "agents/ipstated/Reflect.h"

#include "framework/Exception.h"
#include "platform/Kelmo/Socket.h"
#include "platform/Vistrel/Trace.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <map>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Ipstated {

namespace {

/// What is being read, and what was found wrong with it.
struct Reading {
   Options options;
   std::map< std::string, std::string > groups; ///< what was granted, by option and group
   bool help = false;
   bool version = false;
   bool dump = false;
   bool explicitFollow = false;
   std::set< std::string > given; ///< names of options, on the command line or in the file
   std::vector< std::string > faults;
};

std::string
quoted( std::string_view text ) {
   return "'" + printable( text ) + "'";
}

// -- Values -----------------------------------------------------------------------------------
//
// Each takes the value of one option; what is wrong with it, or nothing.

using Fault = std::string;

Fault
takeNumber( const std::string & text, double least, double most, double & number ) {
   char * end = nullptr;
   const double read = strtod( text.c_str(), &end );
   if( text.empty() || *end || !std::isfinite( read ) || read < least || read > most ) {
      std::array< char, 96 > range;
      snprintf( range.data(), range.size(), " is no number from %.10g to %.10g", least, most );
      return quoted( text ) + range.data();
   }
   number = read;
   return {};
}

Fault
takePollInterval( Reading & reading, const std::string & text ) {
   double seconds = 0;
   Fault fault = takeNumber( text, 0.05, 86400, seconds );
   reading.options.feed.pollInterval = std::chrono::duration_cast< KernelFeed::Duration >(
      std::chrono::duration< double >( seconds ) );
   return fault;
}

Fault
takeReceiveBuffer( Reading & reading, const std::string & text ) {
   double bytes = 0;
   Fault fault = takeNumber( text, 4096, 1 << 30, bytes );
   reading.options.source.receiveBuffer = int( bytes );
   return fault;
}

/// What is wrong with it, for a name that the kernel gives no interface.
Fault
faultOfName( const std::string & name ) {
   bool possible = !name.empty() && name.size() < IFNAMSIZ && name != "." && name != "..";
   for( char each : name ) {
      possible = possible && each != '/' && each != ':' && !isspace( uint8_t( each ) );
   }
   return possible ? Fault() : quoted( name ) + " cannot be an interface's name";
}

Fault
takeSourceIntf( Reading & reading, const std::string & text ) {
   reading.options.sourceIntfs.push_back( text );
   return faultOfName( text );
}

Fault
takeManagementIntf( Reading & reading, const std::string & text ) {
   reading.options.scope.management.push_back( text );
   return faultOfName( text );
}

Fault
takeApplyIntf( Reading & reading, const std::string & text ) {
   reading.options.scope.patterns.push_back( text );
   return text.empty() ? "expected a pattern of interface names, as 'eth*'" : Fault();
}

Fault
takeDestination( Reading & reading, const std::string & text ) {
   Velon::Ip6Addr address;
   if( !Velon::Ip6Addr::fromText( text, address ) ) {
      return quoted( text ) + " is no IPv6 address, as 2001:db8::1 is one";
   }
   reading.options.explained = address;
   return {};
}

Fault
takeSocket( Reading & reading, const std::string & text ) {
   reading.options.served = text;
   try {
      (void)Kelmo::socketAddress( text );
   } catch( const Zek::RangeException & refused ) {
      return printable( refused.what() );
   }
   return {};
}

/// "GROUP" or "GROUP:PATH,PATH": a role of that group, one for all options that name it.
Fault
takeRole( Reading & reading, const std::string & text, bool reads, bool writes ) {
   const size_t colon = text.find( ':' );
   const std::string name = text.substr( 0, colon );
   const ::group * found = name.empty() ? nullptr : getgrnam( name.c_str() );
   if( !found ) return quoted( name ) + " is no group of this system";
   std::vector< std::string > paths;
   for( size_t at = colon; at != text.npos; ) {
      const size_t next = text.find( ',', at + 1 );
      std::string path = text.substr( at + 1, next - at - 1 );
      at = next;
      path = Kelmo::normalisedPath( path ).toString();
      if( path.empty() ) return "expected paths behind " + quoted( name + ":" ) + ", as ip,ip6";
      paths.push_back( path );
   }
   if( colon == text.npos ) paths.emplace_back(); // all
   auto & roles = reading.options.roles;
   auto role = std::find_if( roles.begin(), roles.end(), [&]( const Kelmo::Role & each ) {
      return each.group == found->gr_gid;
   } );
   if( role == roles.end() ) role = roles.insert( role, { found->gr_gid } );
   if( reads ) role->readable.insert( role->readable.end(), paths.begin(), paths.end() );
   if( writes ) role->writable.insert( role->writable.end(), paths.begin(), paths.end() );
   return {};
}

Fault
takeState( Reading & reading, const std::string & text ) {
   struct stat what;
   reading.options.state = text;
   if( stat( text.c_str(), &what ) != 0 ) return quoted( text ) + ": " + strerror( errno );
   if( !S_ISDIR( what.st_mode ) ) return quoted( text ) + " is no folder";
   if( access( text.c_str(), R_OK | W_OK | X_OK ) != 0 ) {
      return "cannot write in " + quoted( text ) + ": " + strerror( errno );
   }
   return {};
}

Fault
takeMetrics( Reading & reading, const std::string & text ) {
   const size_t colon = text.rfind( ':' );
   std::string host = colon == text.npos ? "" : text.substr( 0, colon );
   const std::string port = text.substr( colon == text.npos ? 0 : colon + 1 );
   if( host.size() > 2 && host.front() == '[' && host.back() == ']' ) {
      host = host.substr( 1, host.size() - 2 );
   }
   if( host.empty() ) host = "127.0.0.1";
   addrinfo hints{};
   hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
   hints.ai_socktype = SOCK_STREAM;
   addrinfo * found = nullptr;
   double number = 0;
   if( !takeNumber( port, 1, 65535, number ).empty() ||
       getaddrinfo( host.c_str(), port.c_str(), &hints, &found ) != 0 ) {
      return quoted( text ) + " is no address with a port, as 127.0.0.1:9469 or [::1]:9469";
   }
   Endpoint & endpoint = reading.options.metrics.emplace();
   endpoint.text = text;
   endpoint.length = found->ai_addrlen;
   memcpy( &endpoint.address, found->ai_addr, found->ai_addrlen );
   freeaddrinfo( found );
   return {};
}

Fault
takeLogLevel( Reading & reading, const std::string & text ) {
   const auto level = logLevel( text );
   if( !level ) return quoted( text ) + " is none of error, warning, notice, info, debug";
   reading.options.logLevel = *level;
   return {};
}

Fault
takeColour( Reading & reading, const std::string & text ) {
   if( text != "always" && text != "never" && text != "auto" ) {
      return quoted( text ) + " is none of auto, always, never";
   }
   if( text != "auto" ) reading.options.colours = text == "always";
   return {};
}

Fault
takeDump( Reading & reading, const std::string & text ) {
   reading.dump = true;
   if( !text.empty() || !reading.options.dumped ) reading.options.dumped = text;
   return {};
}

// -- Options ----------------------------------------------------------------------------------

enum Traits : unsigned {
   plain = 0,
   isList = 1,          ///< may be given several times
   onCommandLine = 2,   ///< makes no sense in a file
   valueIsOptional = 4, ///< on the command line
   takesEffect = 8,     ///< of a file read again, without a restart
};

struct Option {
   const char * name;
   const char * value; ///< what it stands for, or null: a flag
   unsigned traits;
   Fault ( *take )( Reading & reading, const std::string & text );
   const char * help;
};

template< bool Options::*flag >
Fault
takeFlag( Reading & reading, const std::string & ) {
   reading.options.*flag = true;
   return {};
}

constexpr Option options[] = {
   { "once", nullptr, onCommandLine, takeFlag< &Options::once >,
     "End after the table and what else is asked for" },
   { "follow", nullptr, plain,
     []( Reading & reading, const std::string & ) {
        reading.explicitFollow = true;
        return Fault();
     },
     "Go on even if the output is no terminal, with a line for every change" },
   { "json", nullptr, onCommandLine, takeFlag< &Options::json >, "Show it as JSON" },
   { "color", "WHEN", plain, takeColour,
     "Colour the table: auto (on a terminal, unless NO_COLOR is set), always, never" },
   { "source-intf", "NAME", isList, takeSourceIntf,
     "Show the address of packets from this interface, and each change of it; repeatable, "
     "the interface may be absent" },
   { "explain-source", "DEST", onCommandLine, takeDestination,
     "Show from which address each interface would send to this IPv6 one, and why" },
   { "dump", "PATH", onCommandLine | valueIsOptional, takeDump,
     "Show the record of the full name PATH, as ip/status, and what is below it; all records "
     "without PATH" },
   { "types", nullptr, onCommandLine, takeFlag< &Options::types >,
     "Show the names of all record types" },
   { "serve", "SOCKET", plain, takeSocket,
     "Let other processes mount the records at this socket, and go on" },
   { "allow-read", "GROUP[:PATHS]", isList | takesEffect,
     []( Reading & reading, const std::string & text ) {
        return takeRole( reading, text, true, false );
     },
     "Let members of this group connect and mount, not only root and the agent's user; with "
     "paths, as ip,ip6, only what is there and below; repeatable" },
   { "allow-write", "GROUP[:PATHS]", isList | takesEffect,
     []( Reading & reading, const std::string & text ) {
        return takeRole( reading, text, false, true );
     },
     "Let them write, too, what can be written; repeatable" },
   { "allow-group", "GROUP[:PATHS]", isList | takesEffect,
     []( Reading & reading, const std::string & text ) {
        return takeRole( reading, text, true, true );
     },
     "Both" },
   { "apply", nullptr, plain, takeFlag< &Options::apply >,
     "Install the addresses of the records ip/config and ip6/config, and go on" },
   { "apply-intf", "GLOB", isList | takesEffect, takeApplyIntf,
     "Configure only interfaces of such a name, as 'eth*'; repeatable. lo, and an interface of "
     "management, is configured only where its very name is given" },
   { "management-intf", "NAME", isList | takesEffect, takeManagementIntf,
     "An interface of management, which is left alone; repeatable" },
   { "state", "DIR", plain, takeState,
     "Keep the configuration records in this folder, and begin with what it holds" },
   { "metrics", "ADDRESS:PORT", plain, takeMetrics,
     "Tell figures in Prometheus' text form over HTTP; of loopback without ADDRESS" },
   { "log-level", "LEVEL", takesEffect, takeLogLevel,
     "Log what is at least as grave: error, warning, notice (unless told otherwise), info, debug" },
   { "poll-interval", "SECONDS", plain, takePollInterval,
     "Between reading what the kernel tells no event of; 5 unless told otherwise" },
   { "receive-buffer", "BYTES", plain, takeReceiveBuffer,
     "Room for kernel events that wait to be read; 16777216 unless told otherwise" },
   { "config", "FILE", onCommandLine,
     []( Reading & reading, const std::string & text ) {
        reading.options.file = text;
        return Fault();
     },
     "Take options from this file, too; SIGHUP reads it again" },
   { "check", nullptr, onCommandLine, takeFlag< &Options::check >,
     "End after checking options and file" },
   { "help", nullptr, onCommandLine,
     []( Reading & reading, const std::string & ) {
        reading.help = true;
        return Fault();
     },
     "Show this" },
   { "version", nullptr, onCommandLine,
     []( Reading & reading, const std::string & ) {
        reading.version = true;
        return Fault();
     },
     "Show the version" },
};

const Option *
optionOf( std::string_view name ) {
   const auto found = std::find_if( std::begin( options ), std::end( options ),
                                    [&]( const Option & each ) { return name == each.name; } );
   return found == std::end( options ) ? nullptr : found;
}

/// How many letters make the one the other.
size_t
distance( std::string_view one, std::string_view other ) {
   std::vector< size_t > row( other.size() + 1 );
   for( size_t j = 0; j <= other.size(); ++j ) row[j] = j;
   for( size_t i = 1; i <= one.size(); ++i ) {
      size_t diagonal = std::exchange( row[0], i );
      for( size_t j = 1; j <= other.size(); ++j ) {
         const size_t changed = diagonal + ( one[i - 1] != other[j - 1] );
         diagonal = row[j];
         row[j] = std::min( { row[j] + 1, row[j - 1] + 1, changed } );
      }
   }
   return row.back();
}

std::string
didYouMean( std::string_view name, const char * dashes ) {
   const auto nearest = std::min_element(
      std::begin( options ), std::end( options ), [&]( const Option & a, const Option & b ) {
         return distance( name, a.name ) < distance( name, b.name );
      } );
   const size_t far = distance( name, nearest->name );
   const bool near = far <= 2 || ( name.size() > 3 && far < name.size() / 2 );
   return near ? std::string( "; did you mean " ) + dashes + nearest->name + "?" : "";
}

void
take( Reading & reading, const Option & option, const std::string & value,
      std::string_view where ) {
   if( const Fault fault = option.take( reading, value ); !fault.empty() ) {
      reading.faults.push_back( std::string( where ) + option.name + ": " + fault );
   }
   reading.given.insert( option.name );
}

// -- Command line and file --------------------------------------------------------------------

/// One option as it was given.
struct Given {
   const Option * option;
   std::string value;
};

std::vector< Given >
readArguments( Reading & reading, const std::vector< std::string > & arguments ) {
   std::vector< Given > all;
   std::vector< std::string > words; // by themselves
   bool optionsEnd = false;
   for( size_t i = 0; i < arguments.size(); ++i ) {
      const std::string & word = arguments[i];
      if( !optionsEnd && word == "--" ) {
         optionsEnd = true;
         continue;
      }
      if( optionsEnd || !word.starts_with( '-' ) || word == "-" ) {
         words.push_back( word );
         continue;
      }
      const size_t equals = word.find( '=' );
      const std::string name = word == "-h" ? "help" : word.substr( 2, equals - 2 );
      const Option * option = word == "-h" || word.starts_with( "--" ) ? optionOf( name ) : nullptr;
      if( !option ) {
         reading.faults.push_back(
            quoted( word.substr( 0, equals ) ) + " is no option" +
            didYouMean( word.substr( word.find_first_not_of( '-' ) == word.npos
                                        ? 0
                                        : word.find_first_not_of( '-' ),
                                     equals ),
                        "--" ) );
         continue;
      }
      const bool isDuplicate = std::any_of( all.begin(), all.end(), [&]( const Given & given ) {
         return given.option == option && option->value && !( option->traits & isList );
      } );
      if( isDuplicate ) reading.faults.push_back( "--" + name + " is given twice" );
      std::string value;
      if( equals != word.npos ) {
         value = word.substr( equals + 1 );
         if( !option->value ) {
            reading.faults.push_back( "--" + name + " takes no value, not " + quoted( value ) );
         } else if( value.empty() && option->traits & valueIsOptional ) {
            reading.faults.push_back( "--" + name + ": expected " + option->value );
         }
      } else if( option->value ) {
         const bool any = i + 1 < arguments.size() && !arguments[i + 1].starts_with( "--" );
         if( any ) {
            value = arguments[++i];
         } else if( !( option->traits & valueIsOptional ) ) {
            reading.faults.push_back( "--" + name + ": expected " + option->value );
            continue;
         }
      }
      all.push_back( { option, value } );
   }
   for( const std::string & word : words ) {
      const auto dump = std::find_if( all.begin(), all.end(), []( const Given & given ) {
         return given.option->name == std::string_view( "dump" ) && given.value.empty();
      } );
      if( dump != all.end() ) {
         dump->value = word;
      } else {
         reading.faults.push_back( quoted( word ) +
                                   " is no option; only --dump takes a word by itself, the full "
                                   "name of a record, as ip/status" );
      }
   }
   return all;
}

std::string
trimmed( std::string_view text ) {
   const size_t from = text.find_first_not_of( " \t\r" );
   if( from == text.npos ) return {};
   return std::string( text.substr( from, text.find_last_not_of( " \t\r" ) + 1 - from ) );
}

/// `overridden` are those that the command line gives a value.
void
readFile( Reading & reading, const std::string & path,
          const std::set< std::string > & overridden ) {
   std::ifstream file( path );
   if( !file ) {
      reading.faults.push_back( "--config: cannot read " + quoted( path ) + ": " +
                                strerror( errno ) );
      return;
   }
   std::set< std::string > seen;
   int number = 0;
   for( std::string line; std::getline( file, line ); ) {
      const std::string where = printable( path ) + ":" + std::to_string( ++number ) + ": ";
      const std::string text = trimmed( std::string_view( line ).substr( 0, line.find( '#' ) ) );
      if( text.empty() ) continue;
      const size_t equals = text.find( '=' );
      const std::string name = trimmed( std::string_view( text ).substr( 0, equals ) );
      const bool hasValue = equals != text.npos;
      const std::string value = hasValue ? trimmed( text.substr( equals + 1 ) ) : "";
      const Option * option = optionOf( name );
      if( !option ) {
         reading.faults.push_back( where + quoted( name ) + " is no option" +
                                   didYouMean( name, "" ) );
      } else if( option->traits & onCommandLine ) {
         reading.faults.push_back( where + name + " is for the command line" );
      } else if( hasValue != bool( option->value ) ) {
         reading.faults.push_back( where + name +
                                   ( hasValue ? " takes no value, not " + quoted( value )
                                              : std::string( ": expected = " ) + option->value ) );
      } else if( !( option->traits & isList ) && !seen.insert( name ).second ) {
         reading.faults.push_back( where + name + " is given twice" );
      } else if( option->traits & isList || !overridden.count( name ) ) {
         take( reading, *option, value, where );
      }
   }
   if( file.bad() ) {
      reading.faults.push_back( "--config: cannot read " + quoted( path ) + ": " +
                                strerror( errno ) );
   }
}

/// Options that do not go together.
void
checkTogether( Reading & reading ) {
   const auto has = [&]( const char * name ) { return reading.given.count( name ) > 0; };
   const auto excludes = [&]( const char * one, std::initializer_list< const char * > others ) {
      for( const char * other : others ) {
         if( has( one ) && has( other ) ) {
            reading.faults.push_back( std::string( "--" ) + one + " excludes --" + other );
         }
      }
   };
   const auto needs = [&]( const char * one, const char * other ) {
      if( has( one ) && !has( other ) ) {
         reading.faults.push_back( std::string( "--" ) + one + " requires --" + other );
      }
   };
   excludes( "once", { "follow", "apply", "serve", "metrics", "dump", "types" } );
   excludes( "dump", { "follow", "apply", "serve", "metrics", "source-intf", "explain-source" } );
   excludes( "types", { "follow", "apply", "serve", "metrics", "source-intf", "explain-source",
                        "dump", "json" } );
   excludes( "json", { "follow", "apply", "serve", "metrics", "source-intf", "explain-source" } );
   for( const char * role : { "allow-read", "allow-write", "allow-group" } ) {
      if( !getenv( "LISTEN_FDS" ) ) needs( role, "serve" );
   }
   for( const char * part : { "apply-intf", "management-intf", "state" } ) needs( part, "apply" );
   std::string error;
   const char * traces = getenv( "IPSTATE_TRACE" );
   if( traces && !Vistrel::settingIs( traces, &error ) ) {
      reading.faults.push_back( "the environment variable IPSTATE_TRACE: " + printable( error ) );
   }
}

} // namespace

bool
ApplyScope::covers( const std::string & name ) const {
   const bool isExcepted =
      name == "lo" || std::find( management.begin(), management.end(), name ) != management.end();
   if( patterns.empty() ) return !isExcepted;
   return std::any_of( patterns.begin(), patterns.end(), [&]( const std::string & pattern ) {
      return pattern == name ||
             ( !isExcepted && fnmatch( pattern.c_str(), name.c_str(), FNM_NOESCAPE ) == 0 );
   } );
}

Parsed
parse( const std::vector< std::string > & arguments, bool isTerminal ) {
   Reading reading;
   reading.options.colours = isTerminal && !getenv( "NO_COLOR" );
   const std::vector< Given > given = readArguments( reading, arguments );
   std::set< std::string > names;
   for( const Given & each : given ) {
      names.insert( each.option->name );
      if( each.option->name == std::string_view( "config" ) ) reading.options.file = each.value;
   }
   if( names.count( "config" ) ) readFile( reading, reading.options.file, names );
   for( const Given & each : given ) take( reading, *each.option, each.value, "--" );
   checkTogether( reading );
   Options & read = reading.options;
   const bool isShort = read.once || read.dumped || read.types || read.json;
   read.follow = reading.explicitFollow || ( isTerminal && !isShort );
   return { std::move( read ), reading.help, reading.version, std::move( reading.faults ) };
}

std::vector< std::string >
needRestart( const Options & before, const Options & now ) {
   std::vector< std::string > names;
   const auto compare = [&]( const char * name, bool isSame ) {
      if( !isSame ) names.emplace_back( name );
   };
   compare( "serve", before.served == now.served );
   compare( "apply", before.apply == now.apply );
   compare( "state", before.state == now.state );
   compare( "follow", before.follow == now.follow );
   compare( "source-intf", before.sourceIntfs == now.sourceIntfs );
   compare( "metrics", ( before.metrics ? before.metrics->text : "" ) ==
                          ( now.metrics ? now.metrics->text : "" ) );
   compare( "poll-interval", before.feed.pollInterval == now.feed.pollInterval );
   compare( "receive-buffer", before.source.receiveBuffer == now.source.receiveBuffer );
   return names;
}

std::string
helpText() {
   constexpr size_t textColumn = 32, columns = 100;
   std::string text = "Mirrors the kernel's interfaces, addresses and VRFs into records and shows "
                      "them: a table of all\ninterfaces, then a line for every change until "
                      "interrupted.\n\nUsage: ipstated [OPTIONS]\n\nOptions:\n";
   for( const Option & option : options ) {
      std::string line = std::string( "  --" ) + option.name;
      if( option.value ) {
         line += option.traits & valueIsOptional ? " [" + std::string( option.value ) + "]"
                                                 : " " + std::string( option.value );
      }
      std::string_view left = option.help;
      while( !left.empty() ) {
         if( line.size() >= textColumn ) {
            text += line + "\n";
            line.clear();
         }
         line.resize( textColumn, ' ' );
         size_t take = left.size();
         if( take > columns - textColumn ) take = left.rfind( ' ', columns - textColumn );
         text += line + std::string( left.substr( 0, take ) ) + "\n";
         left.remove_prefix( std::min( take + 1, left.size() ) );
         line.clear();
      }
   }
   return text +
          "\nEnvironment:\n"
          "  IPSTATE_TRACE   which traces to write, as 'KernelFeed/5,Kelmo*': names of handles, "
          "with \"*\" for\n"
          "                  any run of letters, and levels from 0 to 9, as 1+3-5; all levels "
          "without any\n"
          "  NO_COLOR        no colours\n"
          "\nExit status: 0 as asked, 1 for a fault of options or configuration, 2 where the "
          "system refuses,\n3 for a record that is not there.\n";
}

} // namespace Ipstated
