// What it takes to make bytes of a record and a record of bytes.
//
// The record is an Ip::IpIntfStatus with all its plain attributes. Ours is the whole way: the
// adaptor writes the state record, with its checksum, into the stream; the other session checks
// it, finds the record and applies it through the mutators. Nobody watches the copies, so that
// nobody is told. Every second time all attributes but the texts differ. The peers have the same
// fields in a struct:
//
//    by hand     a fixed form: length, checksum, then the fields in network byte order, texts
//                behind their lengths; the reader verifies the checksum and assigns
//    protobuf    a message, serialised to an array and parsed from it; no checksum
//
// The best of many rounds of 200 records, which alternate.

#include "Ip/Ip.h"
#include "bench/stream/InProcess.h"
#include "framework/Wire.h"

#ifdef BENCH_PROTOBUF
#include <IntfStatus.pb.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Velon::IntfId;
using Velon::IpAddr;
using Velon::IpAddrWithMask;

constexpr size_t records = 200;
constexpr int rounds = 1000;

/// The values of one round.
struct Values {
   explicit Values( int round )
      : address( 0x0a000001 + uint32_t( round % 2 ) ),
        flag( round % 2 != 0 ),
        state( uint8_t( round % 2 + 1 ) ),
        number( uint16_t( 1300 + round % 2 ) ) {}
   uint32_t address;
   bool flag;
   uint8_t state;
   uint16_t number;
};
const std::string source = "startup", intf = "Ethernet1";

struct Timer {
   std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
   void best( double & nanoseconds ) const {
      const std::chrono::duration< double, std::nano > spent =
         std::chrono::steady_clock::now() - start;
      nanoseconds = std::min( nanoseconds, spent.count() / double( records ) );
   }
};

struct Best {
   double encode = 1e9, decode = 1e9;
};

class Ours {
 public:
   Ours() {
      auto status = Ip::Input::statusFactory( "status" );
      ends_.source->entityIs( status );
      for( size_t i = 0; i < records; ++i ) {
         records_.push_back( status->ipIntfStatusIs(
            IntfId( ( "Ethernet" + std::to_string( i ) ).c_str() ), L3::Intf::Status::Ptr() ) );
         records_.back()->configSourceIs( Zek::String( source ) );
         records_.back()->unnumberedIntfIdIs( IntfId( intf.c_str() ) );
      }
      ends_.mount(
         Kelmo::Mount( "status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) ) );
      out().capacityIs( 1 << 20 );
   }
   void round( const Values & v ) {
      for( auto & record : records_ ) {
         // Switched on again, it has everything to send.
         auto & adaptor = *ends_.writer.adapter().adaptorOf( *record );
         adaptor.hasNotificationActiveIs( false );
         record->activeAddrWithMaskIs( IpAddrWithMask( IpAddr( v.address ), 24 ) );
         record->useVirtualAddrIs( v.flag );
         record->dpRoutingEnabledIs( v.flag );
         record->noArpIs( Ip::TristateBool( v.state ) );
         record->maxMssEgressIs( v.number );
         record->maxMssIngressIs( v.number );
         record->addresslessForwardingIs( Ip::TristateBool( v.state ) );
         record->directedBroadcastEnabledIs( v.flag );
         record->attachedRoutesIs( v.flag );
         adaptor.hasNotificationActiveIs( true );
      }
      const Timer encode;
      out().drain();
      encode.best( best.encode );
      const Timer decode;
      ends_.reader.receive( ends_.writer.output().data(), ends_.writer.output().size() );
      decode.best( best.decode );
      bytes = ends_.writer.output().size() / records;
      out().consume( ends_.writer.output().size() );
   }
   Best best;
   size_t bytes = 0;

 private:
   Zek::NboAttrLog::Out & out() { return ends_.writer.adapter().nboAttrLogOut(); }
   bench::InProcess ends_;
   std::vector< Ip::IpIntfStatus::Ptr > records_;
};

/// The fields in a fixed form.
class ByHand {
 public:
   void round( const Values & v ) {
      for( Record & r : records_ ) {
         r.address = v.address;
         r.useVirtualAddr = r.dpRoutingEnabled = r.directedBroadcastEnabled = r.attachedRoutes =
            v.flag;
         r.noArp = r.addresslessForwarding = v.state;
         r.maxMssEgress = r.maxMssIngress = v.number;
      }
      bytes_.resize( records * 256 );
      const Timer encode;
      uint8_t * at = bytes_.data();
      for( const Record & r : records_ ) at = write( r, at );
      encode.best( best.encode );
      const Timer decode;
      const uint8_t * from = bytes_.data();
      for( Record & r : copies_ ) {
         if( !read( r, from ) ) std::abort();
      }
      decode.best( best.decode );
   }
   Best best;

 private:
   struct Record {
      uint32_t address = 0;
      uint8_t length = 24;
      bool useVirtualAddr = false;
      uint32_t urpfMode = 0;
      std::string urpfAcl;
      bool dpRoutingEnabled = false;
      uint32_t noArp = 0;
      uint16_t maxMssEgress = 0;
      uint16_t maxMssIngress = 0;
      std::string configSource = source;
      uint32_t addresslessForwarding = 0;
      bool directedBroadcastEnabled = false;
      bool attachedRoutes = true;
      std::string unnumberedIntfId = intf;
   };
   /// Calls with every field in turn.
   template< class R, class Field >
   static void fields( R & r, Field field ) {
      field( r.address );
      field( r.length );
      field( r.useVirtualAddr );
      field( r.urpfMode );
      field( r.urpfAcl );
      field( r.dpRoutingEnabled );
      field( r.noArp );
      field( r.maxMssEgress );
      field( r.maxMssIngress );
      field( r.configSource );
      field( r.addresslessForwarding );
      field( r.directedBroadcastEnabled );
      field( r.attachedRoutes );
      field( r.unnumberedIntfId );
   }
   template< class U >
   static void put( uint8_t *& at, U value ) {
      value = Zek::Wire::networkOrder( value );
      std::memcpy( at, &value, sizeof value );
      at += sizeof value;
   }
   template< class U >
   static U get( const uint8_t *& at ) {
      U value;
      std::memcpy( &value, at, sizeof value );
      at += sizeof value;
      return Zek::Wire::networkOrder( value );
   }
   [[gnu::noinline]] static uint8_t * write( const Record & r, uint8_t * frame ) {
      uint8_t * at = frame + 8;
      fields( r, [&]( const auto & field ) {
         if constexpr( requires { field.size(); } ) {
            put( at, uint32_t( field.size() ) );
            std::memcpy( at, field.data(), field.size() );
            at += field.size();
         } else {
            put( at, field );
         }
      } );
      put( frame, uint32_t( at - frame ) );
      put( frame, Zek::Wire::checksum( frame + 4, size_t( at - frame ) - 4 ) );
      return at;
   }
   [[gnu::noinline]] static bool read( Record & r, const uint8_t *& at ) {
      const auto length = get< uint32_t >( at );
      const auto sum = get< uint32_t >( at );
      if( Zek::Wire::checksum( at, length - 8 ) != sum ) return false;
      fields( r, [&]( auto & field ) {
         if constexpr( requires { field.size(); } ) {
            const auto size = get< uint32_t >( at );
            field.assign( reinterpret_cast< const char * >( at ), size );
            at += size;
         } else {
            field = get< std::remove_cvref_t< decltype( field ) > >( at );
         }
      } );
      return true;
   }

   std::vector< Record > records_{ records }, copies_{ records };
   std::vector< uint8_t > bytes_;
};

#ifdef BENCH_PROTOBUF
class Protobuf {
 public:
   void round( const Values & v ) {
      for( bench::IntfStatus & r : records_ ) {
         r.set_address( v.address );
         r.set_prefix_length( 24 );
         r.set_use_virtual_addr( v.flag );
         r.set_dp_routing_enabled( v.flag );
         r.set_no_arp( v.state );
         r.set_max_mss_egress( v.number );
         r.set_max_mss_ingress( v.number );
         r.set_config_source( source );
         r.set_addressless_forwarding( v.state );
         r.set_directed_broadcast_enabled( v.flag );
         r.set_attached_routes( v.flag );
         r.set_unnumbered_intf_id( intf );
      }
      bytes_.resize( records * 256 );
      size_t sizes[records];
      const Timer encode;
      char * at = bytes_.data();
      for( size_t i = 0; i < records; ++i ) {
         sizes[i] = records_[i].ByteSizeLong();
         records_[i].SerializeToArray( at, int( sizes[i] ) );
         at += sizes[i];
      }
      encode.best( best.encode );
      const Timer decode;
      const char * from = bytes_.data();
      for( size_t i = 0; i < records; ++i ) {
         if( !copies_[i].ParseFromArray( from, int( sizes[i] ) ) ) std::abort();
         from += sizes[i];
      }
      decode.best( best.decode );
   }
   Best best;

 private:
   std::vector< bench::IntfStatus > records_{ records }, copies_{ records };
   std::vector< char > bytes_;
};
#endif

bool fine = true;

void
line( const char * what, double ours, const char * peer, double theirs, bool atMost, double goal ) {
   const double ratio = atMost ? ours / theirs : theirs / ours;
   const bool met = atMost ? ratio <= goal : ratio >= goal;
   fine = fine && met;
   std::printf( "%-8s %7.1f ns  %-10s %7.1f ns  %6.2f x  %s %g  %s\n", what, ours, peer, theirs,
                ratio, atMost ? "<=" : ">=", goal, met ? "met" : "MISSED" );
}

} // namespace

int
main() {
   Ours ours;
   ByHand byHand;
#ifdef BENCH_PROTOBUF
   Protobuf protobuf;
#endif
   for( int round = 0; round < rounds; ++round ) {
      const Values values( round );
      ours.round( values );
      byHand.round( values );
#ifdef BENCH_PROTOBUF
      protobuf.round( values );
#endif
   }
   std::printf( "%zu bytes a record\n", ours.bytes );
   line( "encode", ours.best.encode, "by hand", byHand.best.encode, true, 2 );
   line( "decode", ours.best.decode, "by hand", byHand.best.decode, true, 2 );
#ifdef BENCH_PROTOBUF
   line( "encode", ours.best.encode, "protobuf", protobuf.best.encode, false, 3 );
   line( "decode", ours.best.decode, "protobuf", protobuf.best.decode, false, 3 );
#else
   std::printf( "protobuf is left out: built without it\n" );
#endif
   return fine ? 0 : 1;
}
