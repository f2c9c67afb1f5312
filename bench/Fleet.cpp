// What a fleet costs: a bucket of many devices read by a mirror, beside the bare protocol that a
// watch of the same bucket takes, and beside the same records made in a tree of this process.
//
//    bench_Fleet [DEVICES [INTERFACES [SECONDS]]]        1000 devices of 100 interfaces, 5 seconds
//
// Goals: the mirror starts within 3 times the bare protocol; its memory is at most 1.3 times that
// of the records; one change a second of every device is kept up with.

#include "tools/ipstate-nats/Mirror.h"
#include "tools/ipstate-nats/Publisher.h"

#include "Ip/Ip.h"
#include "L3/L3.h"
#include "tests/fleet/NatsServers.h"

#include <nats/nats.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace IpstateNats;
using Clock = std::chrono::steady_clock;

namespace {

double
since( Clock::time_point begin ) {
   return std::chrono::duration< double >( Clock::now() - begin ).count();
}

double
processorTime() {
   timespec time;
   clock_gettime( CLOCK_PROCESS_CPUTIME_ID, &time );
   return static_cast< double >( time.tv_sec ) + static_cast< double >( time.tv_nsec ) / 1e9;
}

/// Bytes in use.
double
memory() {
   std::ifstream status( "/proc/self/statm" );
   double all, resident;
   status >> all >> resident;
   return resident * static_cast< double >( sysconf( _SC_PAGESIZE ) );
}

/// One device's tree.
void
fill( Zek::Entity & device, int interfaces ) {
   auto status = Ip::Input::statusFactory( Zek::Name( "status" ) );
   auto l3 = L3::Intf::Input::statusFactory( Zek::Name( "l3" ) );
   device.entityIs( l3 );
   device.entityIs( status );
   for( int i = 0; i < interfaces; ++i ) {
      const Velon::IntfId id( "Ethernet" + std::to_string( i ) );
      auto record = status->ipIntfStatusIs( id, l3->intfStatusIs( id ) );
      record->activeAddrWithMaskIs(
         Velon::IpAddrWithMask( "10.0." + std::to_string( i ) + ".1/24" ) );
   }
}

struct Result {
   double seconds = 0, processor = 0, bytes = 0, entries = 0;
};

/// In a process of its own, so that memory is that of this alone.
Result
apart( const std::function< Result() > & work ) {
   int ends[2];
   if( pipe( ends ) ) exit( 1 );
   const pid_t child = fork();
   if( child == 0 ) {
      const Result result = work();
      (void)!write( ends[1], &result, sizeof result );
      _exit( 0 );
   }
   Result result;
   if( read( ends[0], &result, sizeof result ) != sizeof result ) exit( 1 );
   waitpid( child, nullptr, 0 );
   close( ends[0] );
   close( ends[1] );
   return result;
}

using Entries = std::vector< std::pair< std::string, std::string > >;

/// All records of one device, as they stand in the bucket.
Entries
entriesOf( const Zek::Entity & device ) {
   Entries entries;
   const Referrer referrer = [&]( const Zek::PtrInterface & object ) {
      return keyOf( dynamic_cast< const Zek::Entity & >( object ), device );
   };
   const std::function< void( const Zek::Entity & ) > visit = [&]( const Zek::Entity & record ) {
      const Shape * shape = shapeOf( *record.fwkType() );
      if( &record != &device ) {
         entries.emplace_back( keyOf( record, device ),
                               recordJson( record, *shape, 0, {}, referrer ).dump() );
      }
      for( const Zek::AttributeRow * row : shape->owning ) {
         for( auto i = shape->type->genericIf->genericIfIterator( record, row->id ); i; ++i ) {
            const Zek::GenericValue member = i.value();
            visit( dynamic_cast< const Zek::Entity & >( *member.object() ) );
         }
      }
   };
   visit( device );
   return entries;
}

std::string
deviceName( int device ) {
   return "device" + std::to_string( device );
}

struct Link {
   explicit Link( const std::string & url ) {
      if( natsConnection_ConnectTo( &connection, url.c_str() ) != NATS_OK ) exit( 1 );
      natsConnection_JetStream( &js, connection, nullptr );
   }
   ~Link() {
      jsCtx_Destroy( js );
      natsConnection_Destroy( connection );
   }
   natsConnection * connection = nullptr;
   jsCtx * js = nullptr;
};

void
publishAll( Link & link, int devices, const Entries & entries ) {
   for( int device = 0; device < devices; ++device ) {
      for( const auto & [key, value] : entries ) {
         const std::string subject = "$KV.ipstate." + deviceName( device ) + "." + key;
         if( js_PublishAsync( link.js, subject.c_str(), value.data(),
                              static_cast< int >( value.size() ), nullptr ) != NATS_OK ) {
            exit( 1 );
         }
      }
   }
   js_PublishAsyncComplete( link.js, nullptr );
}

/// The bare protocol: every entry is received, and nothing is done with it.
Result
bare( const std::string & url ) {
   const Clock::time_point begin = Clock::now();
   Link link( url );
   struct Count {
      std::atomic< uint64_t > entries = 0, bytes = 0;
      std::atomic< bool > done = false;
   } count;
   jsSubOptions options;
   jsSubOptions_Init( &options );
   options.Ordered = true;
   options.Config.DeliverPolicy = js_DeliverLastPerSubject;
   natsSubscription * subscription = nullptr;
   js_Subscribe(
      &subscription, link.js, "$KV.ipstate.>",
      []( natsConnection *, natsSubscription *, natsMsg * message, void * closure ) {
         auto & c = *static_cast< Count * >( closure );
         ++c.entries;
         c.bytes += static_cast< uint64_t >( natsMsg_GetDataLength( message ) );
         jsMsgMetaData * data = nullptr;
         natsMsg_GetMetaData( &data, message );
         if( data->NumPending == 0 ) c.done = true;
         jsMsgMetaData_Destroy( data );
         natsMsg_Destroy( message );
      },
      &count, nullptr, &options, nullptr );
   natsSubscription_SetPendingLimits( subscription, -1, -1 );
   while( !count.done ) usleep( 1000 );
   Result result{ since( begin ), processorTime(), static_cast< double >( count.bytes ),
                  static_cast< double >( count.entries ) };
   natsSubscription_Destroy( subscription );
   return result;
}

struct Mirrored {
   explicit Mirrored( const std::string & url )
      : bucket( [&] {
           BucketOptions options;
           options.nats.servers = url;
           return options;
        }() ),
        mirror( root, bucket, {} ) {}
   void turn( int milliseconds ) {
      pollfd wait{ bucket.fd(), POLLIN, 0 };
      poll( &wait, 1, milliseconds );
      mirror.onReadable();
   }
   Zek::Dir::Ptr root = Zek::dirFactory();
   Bucket bucket;
   Mirror mirror;
};

Result
mirrored( const std::string & url ) {
   const double before = memory();
   const Clock::time_point begin = Clock::now();
   Mirrored all( url );
   while( !all.mirror.isSynchronised() ) all.turn( 10 );
   Result result{ since( begin ), processorTime(), 0,
                  static_cast< double >( all.mirror.applied() ) };
   malloc_trim( 0 );
   result.bytes = memory() - before;
   return result;
}

Result
local( int devices, int interfaces ) {
   const double before = memory();
   const Clock::time_point begin = Clock::now();
   Zek::Dir::Ptr root = Zek::dirFactory();
   for( int i = 0; i < devices; ++i ) {
      fill( *root->dirIs( "fleet/" + deviceName( i ) ), interfaces );
   }
   return { since( begin ), processorTime(), memory() - before, 0 };
}

/// Each device changes one record a second; how far behind the mirror is at the end.
Result
keptUp( const std::string & url, int devices, int seconds, const Entries & entries ) {
   Mirrored all( url );
   while( !all.mirror.isSynchronised() ) all.turn( 10 );
   std::atomic< uint64_t > written = 0;
   std::thread writer( [&] {
      Link link( url );
      const Clock::time_point begin = Clock::now();
      for( int second = 0; second < seconds; ++second ) {
         for( int device = 0; device < devices; ++device ) {
            const auto & [key, value] =
               entries[static_cast< size_t >( device + second ) % entries.size()];
            const std::string subject = "$KV.ipstate." + deviceName( device ) + "." + key;
            js_PublishAsync( link.js, subject.c_str(), value.data(),
                             static_cast< int >( value.size() ), nullptr );
            ++written;
            const double due = second + double( device ) / devices;
            const double early = due - since( begin );
            if( early > 0.002 ) usleep( static_cast< useconds_t >( early * 1e6 ) );
         }
      }
      js_PublishAsyncComplete( link.js, nullptr );
   } );
   const uint64_t before = all.mirror.applied();
   const double processor = processorTime();
   const Clock::time_point begin = Clock::now();
   while( since( begin ) < seconds ) all.turn( 10 );
   Result result;
   result.entries = static_cast< double >( all.mirror.applied() - before );
   result.processor = processorTime() - processor;
   writer.join();
   while( all.mirror.applied() - before < written ) all.turn( 10 );
   result.seconds = since( begin ) - seconds;
   return result;
}

} // namespace

int
main( int argc, char ** argv ) {
   if( !ipstate::test::NatsServers::missing().empty() ) {
      printf( "%s\n", ipstate::test::NatsServers::missing().c_str() );
      return 1;
   }
   const int devices = argc > 1 ? atoi( argv[1] ) : 1000;
   const int interfaces = argc > 2 ? atoi( argv[2] ) : 100;
   const int seconds = argc > 3 ? atoi( argv[3] ) : 5;
   ipstate::test::NatsServers servers( 1 );
   const std::string url = servers.url( 0 );
   Entries entries;
   {
      Zek::Dir::Ptr one = Zek::dirFactory();
      fill( *one, interfaces );
      entries = entriesOf( *one );
   }
   apart( [&] {
      {
         Mirrored maker( url ); // makes the bucket
         while( !maker.mirror.isSynchronised() ) maker.turn( 10 );
      }
      Link link( url );
      publishAll( link, devices, entries );
      return Result{};
   } );
   const double records = double( devices ) * double( entries.size() );
   const Result watch = apart( [&] { return bare( url ); } );
   const Result mirror = apart( [&] { return mirrored( url ); } );
   const Result own = apart( [&] { return local( devices, interfaces ); } );
   printf( "%d devices of %d interfaces: %.0f records, %.0f bytes a value\n", devices, interfaces,
           records, watch.bytes / watch.entries );
   printf( "bare watch        %8.2f s  %6.2f us of processor a record\n", watch.seconds,
           watch.processor / records * 1e6 );
   printf( "mirror            %8.2f s  %6.2f us of processor a record\n", mirror.seconds,
           mirror.processor / records * 1e6 );
   printf( "mirror / watch    %8.2f    goal 3\n", mirror.seconds / watch.seconds );
   printf( "bytes a record    %8.0f mirrored, %.0f local\n", mirror.bytes / records,
           own.bytes / records );
   printf( "mirror / local    %8.2f    goal 1.3\n", mirror.bytes / own.bytes );
   const Result kept = apart( [&] { return keptUp( url, devices, seconds, entries ); } );
   printf(
      "one change a second each: %.0f of %d applied in time, the last %.2f s behind, %.1f %% of "
      "a processor\n",
      kept.entries, devices * seconds, kept.seconds, kept.processor / seconds * 100 );
   return 0;
}
