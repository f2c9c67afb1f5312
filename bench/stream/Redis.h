// redis-server over a Unix socket: a hash an interface, a message a change, a subscriber that
// finds and stores.

#pragma once

#include "bench/stream/Processes.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#include <algorithm>
#include <hiredis/hiredis.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench {

class Redis {
 public:
   static constexpr const char * name = "Redis";
   static constexpr const char * program = "/usr/bin/redis-server";

   explicit Redis( size_t records )
      : records_( records ),
        server_(
           [&] {
              std::string path = directory_ / "socket", home = directory_ / "";
              std::freopen( "/dev/null", "w", stdout );
              execl( program, program, "--port", "0", "--unixsocket", path.c_str(), "--save", "",
                     "--appendonly", "no", "--dir", home.c_str(), nullptr );
           },
           Place::any ),
        started_( appears( directory_ / "socket" ) ),
        reader_( [&] { read(); } ),
        context_( connect() ) {
      for( size_t i = 0; i < records_; ++i ) {
         const std::string key = intfName( i );
         const std::string address = std::to_string( 0x0a000001 + i ) + "/24";
         append( { "HSET",
                   key.c_str(),
                   "activeAddrWithMask",
                   address.c_str(),
                   "useVirtualAddr",
                   "0",
                   "urpf",
                   "0",
                   "dpRoutingEnabled",
                   "0",
                   "noArp",
                   "0",
                   "maxMssEgress",
                   "0",
                   "maxMssIngress",
                   "0",
                   "configSource",
                   "",
                   "addresslessForwarding",
                   "0",
                   "directedBroadcastEnabled",
                   "0",
                   "attachedRoutes",
                   "1",
                   "unnumberedIntfId",
                   "" } );
         append( { "SADD", "interfaces", key.c_str() } );
         if( pending_ >= pipelined ) answers();
      }
      answers();
      shared_->go = 1;
      waitFor( shared_->synced );
   }

   double firstSync() const { return double( shared_->synced ) * 1e-9; }
   double updatesASecond( size_t updates ) {
      shared_->arrived = 0;
      const uint64_t start = now();
      for( size_t n = 0; n < updates; ++n ) {
         if( next_ == records_ ) {
            next_ = 0;
            ++value_;
         }
         update( next_++, "maxMssEgress", value_ );
         if( pending_ >= 2 * pipelined ) answers();
      }
      update( 0, "dpRoutingEnabled", 1 );
      answers();
      waitFor( shared_->arrived );
      return double( updates ) / ( double( shared_->arrived - start ) * 1e-9 );
   }
   double hop() {
      double spent = hopOf( *shared_, [&] {
         update( 0, "dpRoutingEnabled", 1 );
         int done = 0;
         while( !done ) redisBufferWrite( context_, &done );
      } );
      answers();
      return spent;
   }

 private:
   static constexpr size_t pipelined = 100; // updates, of two commands each

   redisContext * connect() {
      redisContext * made = redisConnectUnix( ( directory_ / "socket" ).c_str() );
      if( !made || made->err ) die( "redisConnectUnix" );
      return made;
   }
   template< size_t count >
   void append( const char * const ( &words )[count] ) {
      const char * arguments[count];
      size_t sizes[count];
      for( size_t i = 0; i < count; ++i ) {
         arguments[i] = words[i];
         sizes[i] = std::string_view( words[i] ).size();
      }
      redisAppendCommandArgv( context_, count, arguments, sizes );
      ++pending_;
   }
   void update( size_t i, const char * field, unsigned value ) {
      const std::string key = intfName( i ), text = std::to_string( value );
      append( { "HSET", key.c_str(), field, text.c_str() } );
      append( { "PUBLISH", "changes", ( key + " " + field + " " + text ).c_str() } );
   }
   void answers() {
      for( ; pending_; --pending_ ) {
         void * reply;
         if( redisGetReply( context_, &reply ) != REDIS_OK ) die( "redisGetReply" );
         freeReplyObject( reply );
      }
   }

   // -- The reader
   using Record = absl::flat_hash_map< std::string, std::string >;
   struct Free {
      void operator()( redisReply * reply ) const { freeReplyObject( reply ); }
   };
   using Reply = std::unique_ptr< redisReply, Free >;
   static Reply replyOf( redisContext * context ) {
      void * reply;
      if( redisGetReply( context, &reply ) != REDIS_OK ) die( "redisGetReply" );
      return Reply( static_cast< redisReply * >( reply ) );
   }
   static std::string text( const redisReply * reply ) { return { reply->str, reply->len }; }

   void read() {
      waitFor( shared_->go );
      absl::node_hash_map< std::string, Record > replicas;
      const uint64_t start = now();
      redisContext * context = connect();
      redisContext * changes = connect();
      redisAppendCommand( changes, "SUBSCRIBE changes" );
      replyOf( changes );
      redisAppendCommand( context, "SMEMBERS interfaces" );
      const Reply names = replyOf( context );
      for( size_t first = 0; first < names->elements; first += pipelined ) {
         const size_t end = std::min( first + pipelined, names->elements );
         for( size_t i = first; i < end; ++i ) {
            const redisReply * key = names->element[i];
            redisAppendCommand( context, "HGETALL %b", key->str, key->len );
         }
         for( size_t i = first; i < end; ++i ) {
            Record & record = replicas[text( names->element[i] )];
            const Reply fields = replyOf( context );
            for( size_t f = 0; f + 1 < fields->elements; f += 2 ) {
               record[text( fields->element[f] )] = text( fields->element[f + 1] );
            }
         }
      }
      shared_->synced = now() - start;
      for( ;; ) {
         const Reply message = replyOf( changes );
         const std::string body = text( message->element[2] );
         const size_t field = body.find( ' ' ) + 1, value = body.find( ' ', field ) + 1;
         const std::string fieldName = body.substr( field, value - field - 1 );
         replicas.find( body.substr( 0, field - 1 ) )->second[fieldName] = body.substr( value );
         if( fieldName == "dpRoutingEnabled" ) {
            shared_->arrived.store( now(), std::memory_order_release );
         }
      }
   }

   size_t records_;
   Directory directory_;
   Shared * shared_ = Shared::make();
   Child server_;
   bool started_;
   Child reader_;
   redisContext * context_;
   size_t pending_ = 0;
   size_t next_ = 0;
   unsigned value_ = 1;
};

} // namespace bench
