// A scripted kernel and the records that mirror it.

#pragma once

#include "agents/ipstated/Mirror.h"
#include "tests/agents/ScriptedKernel.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace Ipstated::Scripted {

using Lines = std::vector< std::string >;

class MirroredKernel : public ::testing::Test {
 protected:
   void settle() {
      for( int i = 0; i < 20; ++i ) {
         feed.onReadable( now );
      }
   }

   void dumpIs( Dump dump, const std::vector< Message > & messages ) {
      source.dumps[dump] = { Reply{ messages, false, 0 } };
   }

   void begin() {
      feed.start( now );
      settle();
   }

   /// Takes lines for heard().
   ChangeSink sink() {
      return [this]( const Change & change ) { lines.push_back( change.line() ); };
   }

   /// The lines since the last call.
   Lines heard() { return std::exchange( lines, {} ); }

   /// The lines that these events cause.
   Lines after( const std::vector< Message > & events ) {
      for( const Message & event : events ) {
         source.event( event );
      }
      settle();
      return heard();
   }

   Ip::IpIntfStatus::PtrConst ip( const char * name ) {
      return mirror.ipStatus().ipIntfStatus( Velon::IntfId( name ) );
   }

   Ip6::IntfStatus::PtrConst ip6( const char * name ) {
      return mirror.ip6Status().intf( Velon::IntfId( name ) );
   }

   Source source;
   Mirror mirror{ 3 };
   KernelFeed feed{ source, mirror };
   KernelFeed::Time now{};
   Lines lines;
};

} // namespace Ipstated::Scripted
