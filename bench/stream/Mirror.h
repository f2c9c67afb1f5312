// What one would write by hand for these records and nothing else: the same bytes over a socket,
// a hash map to find the record by its number, a store. Checks nothing but what it needs.

#pragma once

#include "bench/stream/Processes.h"
#include "framework/Wire.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#include <concepts>
#include <cstring>
#include <memory>
#include <poll.h>
#include <string_view>
#include <vector>

namespace bench {

/// The fields of an Ip::IpIntfStatus.
struct MirrorRecord {
   std::string intf;
   uint32_t address = 0;
   uint8_t length = 0;
   uint8_t useVirtualAddr = 0;
   uint32_t urpfMode = 0;
   std::string urpfAcl;
   uint8_t dpRoutingEnabled = 0;
   uint32_t noArp = 0;
   uint16_t maxMssEgress = 0;
   uint16_t maxMssIngress = 0;
   std::string configSource;
   uint32_t addresslessForwarding = 0;
   uint8_t directedBroadcastEnabled = 0;
   uint8_t attachedRoutes = 1;
   std::string unnumberedIntf;
};

/// Writes and reads fields in network byte order.
class MirrorWriter {
 public:
   explicit MirrorWriter( std::vector< uint8_t > & bytes ) : bytes_( bytes ), at_( bytes.size() ) {
      bytes_.resize( at_ + most );
   }
   ~MirrorWriter() { bytes_.resize( at_ ); }
   MirrorWriter( const MirrorWriter & ) = delete;
   MirrorWriter & operator=( const MirrorWriter & ) = delete;

   template< std::unsigned_integral U >
   void number( U value ) {
      value = Zek::Wire::networkOrder( value );
      std::memcpy( &bytes_[at_], &value, sizeof value );
      at_ += sizeof value;
   }
   void text( std::string_view text ) {
      number( uint32_t( text.size() ) );
      std::memcpy( &bytes_[at_], text.data(), text.size() );
      at_ += text.size();
   }
   /// An attribute of a whole record: number, length, value.
   template< std::unsigned_integral U >
   void field( uint16_t id, U value ) {
      number( id );
      number( uint32_t( sizeof value ) );
      number( value );
   }
   void field( uint16_t id, std::string_view value ) {
      number( id );
      number( uint32_t( value.size() + 4 ) );
      text( value );
   }
   void begin( uint32_t flow, uint16_t attribute, uint8_t kind, uint32_t sequence ) {
      frame_ = at_;
      number( uint64_t( 0 ) );
      number( flow );
      number( attribute );
      number( kind );
      number( uint8_t( 0 ) );
      number( sequence );
      number( uint8_t( 0 ) );
   }
   void end() {
      number( uint8_t( 2 ) );
      const auto length = uint32_t( at_ - frame_ );
      const uint32_t sum = Zek::Wire::checksum( &bytes_[frame_ + 8], length - 8 );
      const uint32_t head[2] = { Zek::Wire::networkOrder( length ),
                                 Zek::Wire::networkOrder( sum ) };
      std::memcpy( &bytes_[frame_], head, sizeof head );
   }

 private:
   static constexpr size_t most = 512; // of one record
   std::vector< uint8_t > & bytes_;
   size_t at_;
   size_t frame_ = 0;
};

template< class U >
U
numberAt( const uint8_t * at ) {
   U value;
   std::memcpy( &value, at, sizeof value );
   return Zek::Wire::networkOrder( value );
}

inline std::string_view
textAt( const uint8_t * at ) {
   return { reinterpret_cast< const char * >( at + 4 ), numberAt< uint32_t >( at ) };
}

class Mirror {
 public:
   static constexpr const char * name = "mirror by hand";

   explicit Mirror( size_t records ) : wanted_( records ), child_( [&] { read(); } ) {
      records_.resize( records );
      for( size_t i = 0; i < records; ++i ) {
         records_[i].intf = intfName( i );
         records_[i].address = 0x0a000001 + uint32_t( i );
         records_[i].length = 24;
      }
      sequence_.resize( records );
      shared_->go = 1;
      char request;
      if( ::read( sockets_[0], &request, 1 ) != 1 ) die( "read" );
      for( size_t i = 0; i < records; ++i ) {
         announce( i );
         if( bytes_.size() > 65536 ) flush();
      }
      flush();
      waitFor( shared_->synced );
   }

   double firstSync() const { return double( shared_->synced ) * 1e-9; }
   double updatesASecond( size_t updates ) {
      shared_->arrived = 0;
      const uint64_t start = now();
      for( size_t n = 0; n < updates; ) {
         for( const size_t end = n + updatesATurn; n < end; ++n ) {
            if( next_ == records_.size() ) {
               next_ = 0;
               ++value_;
            }
            records_[next_].maxMssEgress = value_;
            MirrorWriter out( bytes_ );
            out.begin( uint32_t( next_ + 1 ), maxMssEgress, 0, ++sequence_[next_] );
            out.number( value_ );
            out.end();
            ++next_;
         }
         flush();
      }
      tell();
      waitFor( shared_->arrived );
      return double( updates ) / ( double( shared_->arrived - start ) * 1e-9 );
   }
   double hop() {
      return hopOf( *shared_, [&] { tell(); } );
   }

 private:
   // Numbers of attributes.
   static constexpr uint16_t whole = 0, instance = 1, activeAddrWithMask = 2, useVirtualAddr = 3,
                             urpf = 4, dpRoutingEnabled = 5, noArp = 6, maxMssEgress = 7,
                             maxMssIngress = 8, configSource = 9, addresslessForwarding = 10,
                             directedBroadcastEnabled = 11, attachedRoutes = 12,
                             unnumberedIntf = 13;

   void flush() {
      writeAll( sockets_[0], bytes_.data(), bytes_.size() );
      bytes_.clear();
   }
   void tell() {
      records_[0].dpRoutingEnabled ^= 1;
      {
         MirrorWriter out( bytes_ );
         out.begin( 1, dpRoutingEnabled, 0, ++sequence_[0] );
         out.number( records_[0].dpRoutingEnabled );
         out.end();
      }
      flush();
   }
   void announce( size_t i ) {
      const MirrorRecord & record = records_[i];
      MirrorWriter out( bytes_ );
      out.begin( uint32_t( records_.size() ) + 1, instance, 3, uint32_t( i ) );
      out.text( record.intf );
      out.number( uint32_t( i + 1 ) );
      out.number( uint32_t( 0 ) );
      out.number( uint32_t( 2 ) );
      out.number( uint8_t( 0 ) );
      out.end();
      out.begin( uint32_t( i + 1 ), whole, 6, 0 );
      out.number( activeAddrWithMask );
      out.number( uint32_t( 5 ) );
      out.number( record.address );
      out.number( record.length );
      out.field( useVirtualAddr, record.useVirtualAddr );
      out.number( urpf );
      out.number( uint32_t( 8 + record.urpfAcl.size() ) );
      out.number( record.urpfMode );
      out.text( record.urpfAcl );
      out.field( dpRoutingEnabled, record.dpRoutingEnabled );
      out.field( noArp, record.noArp );
      out.field( maxMssEgress, record.maxMssEgress );
      out.field( maxMssIngress, record.maxMssIngress );
      out.field( configSource, record.configSource );
      out.field( addresslessForwarding, record.addresslessForwarding );
      out.field( directedBroadcastEnabled, record.directedBroadcastEnabled );
      out.field( attachedRoutes, record.attachedRoutes );
      out.field( unnumberedIntf, record.unnumberedIntf );
      // Its two collections, which are empty.
      for( uint16_t collection : { 14, 15 } ) {
         out.number( collection );
         out.number( uint32_t( 0 ) );
      }
      out.end();
   }

   // -- The reader
   void read() {
      close( sockets_[0] );
      waitFor( shared_->go );
      const size_t most = 65536;
      auto buffer = std::make_unique< uint8_t[] >( 2 * most );
      size_t held = 0;
      const uint64_t start = now();
      if( write( sockets_[1], "", 1 ) != 1 ) die( "write" );
      for( ;; ) {
         pollfd wait{ sockets_[1], POLLIN, 0 };
         poll( &wait, 1, -1 );
         ssize_t count = ::read( sockets_[1], buffer.get() + held, most );
         if( count <= 0 ) _exit( 0 );
         held += size_t( count );
         size_t used = 0;
         while( held - used >= 4 ) {
            const uint8_t * frame = buffer.get() + used;
            const uint32_t length = numberAt< uint32_t >( frame );
            if( held - used < length ) break;
            apply( frame, length );
            used += length;
         }
         std::memmove( buffer.get(), buffer.get() + used, held -= used );
         if( !shared_->synced && complete_ == wanted_ ) shared_->synced = now() - start;
      }
   }
   void apply( const uint8_t * frame, uint32_t length ) {
      const uint8_t * body = frame + 21;
      const auto attribute = numberAt< uint16_t >( frame + 12 );
      const uint8_t kind = frame[14];
      if( kind == 3 ) {
         const std::string_view intf = textAt( body );
         MirrorRecord & record = replicas_[std::string( intf )];
         record.intf = intf;
         byNumber_[numberAt< uint32_t >( body + 4 + intf.size() )] = &record;
         return;
      }
      MirrorRecord & record = *byNumber_.find( numberAt< uint32_t >( frame + 8 ) )->second;
      if( kind == 0 ) {
         store( record, attribute, body );
         return;
      }
      for( const uint8_t * end = frame + length - 1; body < end; ) {
         const auto size = numberAt< uint32_t >( body + 2 );
         store( record, numberAt< uint16_t >( body ), body + 6 );
         body += 6 + size;
      }
      ++complete_;
   }
   void store( MirrorRecord & record, uint16_t attribute, const uint8_t * at ) {
      switch( attribute ) {
      case activeAddrWithMask:
         record.address = numberAt< uint32_t >( at );
         record.length = at[4];
         break;
      case useVirtualAddr:
         record.useVirtualAddr = *at;
         break;
      case urpf:
         record.urpfMode = numberAt< uint32_t >( at );
         record.urpfAcl = textAt( at + 4 );
         break;
      case dpRoutingEnabled:
         record.dpRoutingEnabled = *at;
         if( shared_->synced ) shared_->arrived.store( now(), std::memory_order_release );
         break;
      case noArp:
         record.noArp = numberAt< uint32_t >( at );
         break;
      case maxMssEgress:
         record.maxMssEgress = numberAt< uint16_t >( at );
         break;
      case maxMssIngress:
         record.maxMssIngress = numberAt< uint16_t >( at );
         break;
      case configSource:
         record.configSource = textAt( at );
         break;
      case addresslessForwarding:
         record.addresslessForwarding = numberAt< uint32_t >( at );
         break;
      case directedBroadcastEnabled:
         record.directedBroadcastEnabled = *at;
         break;
      case attachedRoutes:
         record.attachedRoutes = *at;
         break;
      case unnumberedIntf:
         record.unnumberedIntf = textAt( at );
         break;
      default:
         break;
      }
   }

   struct Pair {
      Pair() {
         if( socketpair( AF_UNIX, SOCK_STREAM, 0, fds ) != 0 ) die( "socketpair" );
      }
      int operator[]( int i ) const { return fds[i]; }
      int fds[2];
   } sockets_;
   Shared * shared_ = Shared::make();
   absl::node_hash_map< std::string, MirrorRecord > replicas_;
   absl::flat_hash_map< uint32_t, MirrorRecord * > byNumber_;
   size_t complete_ = 0;
   size_t wanted_;
   std::vector< uint8_t > bytes_;
   std::vector< MirrorRecord > records_;
   std::vector< uint32_t > sequence_;
   Child child_;
   size_t next_ = 0;
   uint16_t value_ = 1;
};

/// The bare hop: as many bytes as one update has, written, waited for with poll and read.
class BareHop {
 public:
   BareHop()
      : child_( [&] {
           char bytes[64];
           for( ;; ) {
              pollfd wait{ sockets_[1], POLLIN, 0 };
              poll( &wait, 1, -1 );
              if( ::read( sockets_[1], bytes, sizeof bytes ) <= 0 ) _exit( 0 );
              shared_->arrived.store( now(), std::memory_order_release );
           }
        } ) {}
   double hop() {
      return hopOf( *shared_, [&] {
         const char bytes[23] = {};
         writeAll( sockets_[0], bytes, sizeof bytes );
      } );
   }

 private:
   int sockets_[2];
   int made_ = socketpair( AF_UNIX, SOCK_STREAM, 0, sockets_ );
   Shared * shared_ = Shared::make();
   Child child_;
};

} // namespace bench
