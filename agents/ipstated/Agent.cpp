#include "agents/ipstated/Agent.h"

#include "agents/ipstated/Dump.h"
#include "agents/ipstated/Explain.h"
#include "agents/ipstated/Reflect.h"
#include "agents/ipstated/Table.h"

#include "platform/Cell/Cell.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Ipstated {

namespace {

constexpr auto signalPatience = std::chrono::milliseconds( 350 );
constexpr auto saveDelay = std::chrono::seconds( 5 ); // after a failure
constexpr auto saveWork = std::chrono::milliseconds( 5 );

/// Whether the kernel keeps who set an address (5.18).
bool
kernelKnowsTags() {
   utsname names{};
   int major = 0, minor = 0;
   return uname( &names ) == 0 && sscanf( names.release, "%d.%d", &major, &minor ) == 2 &&
          ( major > 5 || ( major == 5 && minor >= 18 ) );
}

/// Removes a socket file, unless another has taken its place.
std::function< void() >
removal( const std::string & path ) {
   struct stat made {};
   if( path.empty() || stat( path.c_str(), &made ) != 0 ) return [] {};
   return [path, device = made.st_dev, inode = made.st_ino] {
      struct stat found {};
      const bool isOurs =
         lstat( path.c_str(), &found ) == 0 && found.st_dev == device && found.st_ino == inode;
      if( isOurs ) unlink( path.c_str() );
   };
}

} // namespace

// -- Opening ----------------------------------------------------------------------------------

Agent::Agent( const Options & options, Log & log, Service & service,
              std::function< Parsed() > reread )
   : options_( options ),
     log_( log ),
     service_( service ),
     reread_( std::move( reread ) ),
     output_( STDOUT_FILENO ),
     source_( options.source ),
     mirror_( Cell::cellId() ),
     feed_( source_, observers_, options.feed ) {
   observers_.add( trace_ );
   observers_.add( mirror_ );
   observers_.add( *this );
   mirror_.onFullDump = [this] {
      try {
         if( !std::exchange( shown_, true ) ) onFirstDump(); // later ones tell by notifications
      } catch( ... ) {
         fault_ = std::current_exception();
         output_.close();
      }
   };
   openIntent();
   if( apply_ ) observers_.add( *apply_ );
   openServer();
   if( options_.metrics ) {
      metricsServer_ =
         std::make_unique< MetricsServer >( *options_.metrics, [this] { return metrics(); } );
   }
   dropRights( options_.apply );
   signals_ = std::make_unique< Signals >(
      !options_.file.empty(), signalPatience,
      removal( service_.listener() < 0 ? options_.served : std::string() ) );
}

Agent::~Agent() {
   service_.stopping();
   if( state_ && intentChanged_ ) {
      saveIntent();
   }
}

/// What keeps the kernel as the records ip/config and ip6/config of the tree want it; it tells what
/// is wrong with them in ip/configError.
void
Agent::openIntent() {
   if( !options_.apply ) return;
   auto config4 = Ip::configFactory( "config" );
   auto config6 = Ip6::configFactory( "config" );
   auto errors = Ip::ipConfigErrorFactory( "configError" );
   Zek::Dir & root = *mirror_.root();
   root.dirIs( "ip" )->entityIs( config4 );
   root.dirIs( "ip6" )->entityIs( config6 );
   root.dirIs( "ip" )->entityIs( errors );
   Intent kept{ { config4, config6 }, {} };
   if( !options_.state.empty() ) {
      state_ = std::make_unique< State >( options_.state );
      try {
         if( const auto text = state_->read() ) readIntent( *text, kept );
      } catch( const std::runtime_error & damaged ) {
         throw std::runtime_error( "'" + state_->path() + "' is refused: " + damaged.what() +
                                   "; the one before it is '" + state_->lastPath() +
                                   "', to be put in its place by hand" );
      }
   }
   Apply::Options options;
   options.covers = [this]( const std::string & name ) { return options_.scope.covers( name ); };
   options.tag = kernelKnowsTags() ? addressTag : 0;
   options.recognises = bool( state_ );
   apply_ = std::make_unique< Apply >( config4, config6, errors, feed_.state(), options );
   if( !options.tag ) {
      for( const auto & [intf, address] : kept.owned ) apply_->ownIs( { intf, address } );
   }
   if( !state_ ) return;
   for( const Zek::Entity::Ptr & record : kept.records ) {
      intentWatches_.push_back( std::make_unique< Watch >(
         *record, [this]( const Change & ) { intentChanged_ = true; } ) );
   }
}

void
Agent::openServer() {
   if( service_.listener() >= 0 ) options_.served = service_.listenerPath();
   if( options_.served.empty() ) return;
   Kelmo::ServerOptions options;
   options.roles = options_.roles;
   options.listener = service_.listener();
   if( options_.apply ) options.writable = { "ip/config", "ip6/config" };
   options.refuses = [this]( const Kelmo::Mount & mount ) { return refusalOf( mount ); };
   options.mounted = [this]( const std::string & client,
                             const std::vector< std::string > & paths ) {
      onMounted( client, paths );
   };
   options.problem = [this]( const std::string & text ) { log_.warning( text ); };
   // It answers nobody before the first dump: who mounts finds the whole.
   server_ = std::make_unique< Kelmo::Server >( mirror_.root(), options_.served, options );
}

/// A cell that is not this one will never stand in the tree: better told than waited for.
std::string
Agent::refusalOf( const Kelmo::Mount & mount ) const {
   const std::string path = mount.path().toString();
   const std::string own = "cell/" + std::to_string( Cell::cellId() );
   if( !path.starts_with( "cell/" ) || path == own || path.starts_with( own + "/" ) ) return {};
   const std::string reason = "'" + path + "' is of another cell: this agent's is " + own;
   log_.warning( "a client mounts what is not here: " + reason );
   return reason;
}

/// Who mounts the merged status alone finds it empty, and wonders.
void
Agent::onMounted( const std::string & client, const std::vector< std::string > & paths ) {
   const std::string cell = std::to_string( Cell::cellId() );
   const auto has = [&]( const std::string & wanted ) {
      return std::any_of( paths.begin(), paths.end(), [&]( const std::string & path ) {
         return wanted == path || wanted.starts_with( path + "/" );
      } );
   };
   for( const char * family : { "ip", "ip6" } ) {
      const std::string status = std::string( family ) + "/status";
      const std::string input = "cell/" + cell + "/" + family + "/input/status-" + cell;
      if( has( status ) && !has( input ) ) {
         log_.warning( client + " mounts '" + status + "' without '" + input +
                       "', where the records are that it refers to" );
      }
   }
}

// -- Showing ----------------------------------------------------------------------------------

void
Agent::onFirstDump() {
   service_.ready( std::to_string( mirror_.ipStatus().ipIntfStatusCount() ) + " interfaces" );
   log_.info( "the first full dump is done: " +
              std::to_string( mirror_.ipStatus().ipIntfStatusCount() ) + " interfaces" );
   if( options_.dumped ) {
      output_.write( dump( *mirror_.root(), *options_.dumped, options_.json ) );
   } else {
      show();
   }
}

void
Agent::show() {
   const Ip::Status & ip = mirror_.ipStatus();
   const Ip6::Status & ip6 = mirror_.ip6Status();
   output_.write( options_.json ? tableJson( ip, ip6, feed_.state() )
                                : table( ip, ip6, feed_.state(), options_.colours ) );
   if( options_.explained ) {
      output_.write( "\n" + explainSource( ip6, *options_.explained ) );
   }
   if( options_.follow || !options_.sourceIntfs.empty() ) {
      output_.write( "\n" );
   }
   const auto tell = [this]( const Change & change ) {
      if( renamed_.empty() ) output_.change( change );
   };
   // Before the registries: the line of a change comes before what follows from it.
   if( options_.follow ) {
      watch_ = std::make_unique< Watch >( *mirror_.root(), tell );
   }
   if( !options_.sourceIntfs.empty() ) {
      sources_ = std::make_unique< Sources >(
         ip, ip6, [this]( const Change & change ) { output_.change( change ); } );
   }
   for( const std::string & name : options_.sourceIntfs ) {
      sources_->sourceIntfIs( Velon::IntfId( name ) );
   }
}

void
Agent::onLink( const Interface & interface, const LinkFacts & before ) {
   if( !options_.follow || !shown_ ) return;
   const LinkFacts & now = interface.link;
   const auto tell = [&]( const char * what, const std::string & was, const std::string & is ) {
      if( was != is )
         output_.change( { printable( "link  " + interface.name + "  " + what ), printable( was ),
                           printable( is ) } );
   };
   tell( "state", before.stateText(), now.stateText() );
   tell( "mtu", std::to_string( before.mtu ), std::to_string( now.mtu ) );
   tell( "mac", before.addressText(), now.addressText() );
   tell( "kind", before.kind, now.kind );
}

// The records are keyed by name: of a rename they tell that all of the one goes and all of the
// other comes. One line says as much.

void
Agent::onRename( const Interface & before, const std::string & ) {
   renamed_ = before.name;
}

void
Agent::onRenamed( const Interface & interface ) {
   const std::string before = std::exchange( renamed_, {} );
   if( options_.follow && shown_ ) {
      output_.change( { "renamed  index " + std::to_string( interface.index ), printable( before ),
                        printable( interface.name ) } );
   }
}

void
Agent::onProblem( const std::string & text ) {
   log_.warning( text );
}

// -- The loop ---------------------------------------------------------------------------------

void
Agent::run() {
   feed_.start( Clock::now() );
   behindSince_ = Clock::now();
   while( turn() ) {}
   if( fault_ ) {
      std::rethrow_exception( fault_ );
   }
   output_.check();
}

int
Agent::timeout() const {
   std::optional< Clock::time_point > first;
   const auto consider = [&]( const std::optional< Clock::time_point > & time ) {
      if( time ) first = std::min( first.value_or( *time ), *time );
   };
   consider( feed_.deadline() );
   consider( log_.deadline() );
   consider( service_.deadline() );
   consider( saveAgainAt_ );
   if( apply_ && mayApply() ) consider( apply_->deadline() );
   if( metricsServer_ ) consider( metricsServer_->deadline() );
   if( !first ) return -1;
   const auto now = Clock::now();
   const auto left = std::clamp( *first, now, now + std::chrono::hours( 1 ) ) - now;
   return int( std::chrono::ceil< std::chrono::milliseconds >( left ).count() );
}

bool
Agent::turn() {
   if( server_ && shown_ ) server_->flush();
   if( intentChanged_ && state_ && state_->isIdle() && !saveAgainAt_ ) saveIntent();
   output_.flush();
   log_.flush();
   if( shown_ && !options_.goesOn() && !output_.isWaiting() ) return false;
   if( !output_.open() && ( watch_ || sources_ || !options_.goesOn() ) ) return false;

   // Errors and hang-ups are told unasked: a reader who goes while there is nothing to say.
   const bool isForReaders = watch_ || sources_ || !options_.goesOn();
   const auto wanted = []( bool any ) { return short( any ? POLLOUT : 0 ); };
   enum { kernel, signals, reader, logReader, clients, figures, disk };
   pollfd waits[] = {
      { feed_.fd(), POLLIN, 0 },
      { signals_->fd(), POLLIN, 0 },
      { output_.open() && ( isForReaders || output_.isWaiting() ) ? output_.fd() : -1,
        wanted( output_.isWaiting() ), 0 },
      { log_.isWaiting() ? log_.fd() : -1, POLLOUT, 0 },
      { server_ && shown_ ? server_->fd() : -1, POLLIN, 0 },
      { metricsServer_ ? metricsServer_->fd() : -1, POLLIN, 0 },
      { state_ ? state_->fd() : -1, POLLIN, 0 },
   };
   if( poll( waits, std::size( waits ), timeout() ) < 0 && errno != EINTR ) {
      throw std::system_error( errno, std::generic_category(), "poll" );
   }
   if( waits[signals].revents ) {
      const Signals::Wanted what = signals_->take();
      if( what == Signals::Wanted::end ) return false;
      if( what == Signals::Wanted::reload ) reload();
   }
   if( waits[reader].revents & ~POLLOUT && isForReaders ) {
      return false;
   }
   if( waits[kernel].revents ) {
      feed_.onReadable( Clock::now() );
   } else {
      behindSince_ = Clock::now();
   }
   if( waits[clients].revents ) server_->onReadable();
   if( waits[figures].revents ) metricsServer_->onReadable( Clock::now() );
   if( waits[disk].revents ) intentIsSaved();
   serveDeadlines( Clock::now() );
   return !fault_;
}

void
Agent::serveDeadlines( Clock::time_point now ) {
   const auto isDue = [&]( const std::optional< Clock::time_point > & time ) {
      return time && *time <= now;
   };
   if( isDue( feed_.deadline() ) ) feed_.onDeadline( now );
   if( apply_ && mayApply() && isDue( apply_->deadline() ) ) apply_->serve( now );
   if( isDue( log_.deadline() ) ) log_.serve( now );
   if( isDue( service_.deadline() ) ) service_.serve( now );
   if( metricsServer_ && isDue( metricsServer_->deadline() ) ) metricsServer_->onDeadline( now );
   if( isDue( saveAgainAt_ ) ) saveAgainAt_.reset();
}

void
Agent::reload() {
   service_.reloading();
   Parsed parsed = reread_();
   if( !parsed.faults.empty() ) {
      for( const std::string & fault : parsed.faults ) log_.error( fault );
      log_.error( "the configuration stays as it was" );
   } else {
      Options & now = parsed.options;
      for( const std::string & name : needRestart( options_, now ) ) {
         log_.warning( "--" + name + " differs, and takes effect with the next start" );
      }
      options_.logLevel = now.logLevel;
      log_.levelIs( now.logLevel );
      options_.roles = now.roles;
      if( server_ ) server_->rolesIs( now.roles );
      if( options_.scope != now.scope ) {
         options_.scope = now.scope;
         if( apply_ ) apply_->coverageChanged();
      }
      log_.notice( "the configuration was read again" );
   }
   service_.ready( "the configuration was read again" );
}

// -- The configuration records on the disk ----------------------------------------------------

Intent
Agent::intent() const {
   Intent intent;
   for( const char * path : { "ip/config", "ip6/config" } ) {
      intent.records.push_back( mirror_.root()->entityAt( path ) );
   }
   for( const Apply::Owned & each : apply_->owned() ) {
      intent.owned.emplace_back( each.intf, each.address );
   }
   return intent;
}

void
Agent::saveIntent() {
   const auto begin = Clock::now();
   intentChanged_ = false;
   state_->write( intentText( intent() ) );
   // Of a large configuration, writing the text down is work too: no more than a tenth of all.
   const auto took = Clock::now() - begin;
   if( took > saveWork ) saveAgainAt_ = begin + 10 * took;
}

void
Agent::intentIsSaved() {
   const std::string failed = state_->takeResult();
   if( failed.empty() ) {
      if( std::exchange( intentFailed_, false ) ) {
         log_.notice( "'" + state_->path() + "' is written again" );
      }
      return;
   }
   log_.error( failed + "; the configuration would not survive a restart" );
   intentFailed_ = true;
   intentChanged_ = true;
   saveAgainAt_ = Clock::now() + saveDelay;
}

/// Without tags an address is known by the list alone: that comes first, if it can.
bool
Agent::mayApply() const {
   return !state_ || kernelKnowsTags() || intentFailed_ || ( !intentChanged_ && state_->isIdle() );
}

// -- Figures ----------------------------------------------------------------------------------

std::string
Agent::metrics() const {
   MetricsText text;
   const KernelFeed::Statistics & kernel = feed_.statistics();
   const auto lag = std::chrono::duration< double >( Clock::now() - behindSince_ ).count();
   text.gauge( "mirror_lag_seconds", "For how long there was always more of the kernel to read.",
               feed_.synchronized() ? lag : std::max( lag, 0.001 ) );
   text.gauge( "mirror_synchronized", "Whether the records are known to be the kernel's state.",
               feed_.synchronized() );
   text.gauge( "interfaces", "Interfaces in the records.", mirror_.ipStatus().ipIntfStatusCount() );
   text.counter( "kernel_events_total", "Datagrams of kernel events read.",
                 double( kernel.events ) );
   text.counter( "kernel_overruns_total", "Times that the kernel lost events.",
                 double( kernel.overruns ) );
   text.counter( "kernel_full_dumps_total", "Full dumps completed.", double( kernel.fullDumps ) );
   text.counter( "kernel_interrupted_dumps_total", "Single dumps marked as interrupted.",
                 double( kernel.interrupted ) );
   text.counter( "kernel_malformed_total", "Kernel messages skipped.", double( kernel.malformed ) );

   text.begin( "live_objects", "gauge", "Objects alive, by type." );
   for( auto info = Zek::AllocTrackTypeInfo::all(); info; info = info->next() ) {
      text.value( double( info->liveObjects() ), MetricsText::label( "type", info->name() ) );
   }
   text.begin( "live_bytes", "gauge", "Bytes of objects alive, by type." );
   for( auto info = Zek::AllocTrackTypeInfo::all(); info; info = info->next() ) {
      text.value( double( info->liveBytes() ), MetricsText::label( "type", info->name() ) );
   }

   if( server_ ) {
      text.gauge( "clients", "Clients connected.", double( server_->clients() ) );
      text.gauge( "client_waiting_bytes", "Bytes that wait to be sent to clients.",
                  double( server_->waiting() ) );
      text.counter( "client_refusals_total", "Clients turned away, or disconnected for a fault.",
                    double( server_->faults() ) );
   }
   if( apply_ ) {
      const Apply::Statistics & done = apply_->statistics();
      text.gauge( "apply_queue_interfaces", "Interfaces with addresses to look at.",
                  double( apply_->queued() ) );
      text.counter( "apply_installed_total", "Requests for an address that the kernel took.",
                    double( done.installed ) );
      text.counter( "apply_removed_total", "Requests to remove one that the kernel took.",
                    double( done.removed ) );
      text.begin( "apply_failures_total", "counter",
                  "Requests that the kernel refused, by cause." );
      for( const auto & [cause, count] : done.refusals ) {
         text.value( double( count ), MetricsText::label( "cause", cause ) );
      }
   }
   if( state_ ) {
      text.counter( "state_writes_total", "Times that the configuration came to the disk.",
                    double( state_->written() ) );
      text.counter( "state_failures_total", "Times that it did not.",
                    double( state_->failures() ) );
   }
   text.gauge( "output_waiting_changes", "Changes that a slow reader of the output lacks.",
               double( output_.waiting() ) );
   text.counter( "output_merged_total", "Changes told by the line of a later one.",
                 double( output_.merged() ) );
   text.counter( "log_dropped_total", "Lines of the log that nobody read.",
                 double( log_.dropped() ) );
   text.counter( "log_repeated_total", "Lines of the log that were counted instead of written.",
                 double( log_.repeated() ) );
   return text.take();
}

} // namespace Ipstated
