// The records of one address family, and a tale of what is announced about them.
//
// The recorders write a line for each increment of a view, with the change record as it is at that
// moment: "addrChanged 2: red Ethernet1 10.0.0.1/24", "-" for what is empty.

#pragma once

#include "IpGen/IpGenIntfSm.h"
#include "IpGen/IpGenStatusSm.h"
#include "framework/Exception.h"
#include "platform/Vistrel/Trace.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace Generic {

using Intf = Velon::IntfId;
using Vrf = L3::VrfName;

inline Velon::IpAddrWithMask
v4( std::string_view text ) {
   return Velon::IpAddrWithMask( text );
}

inline Velon::Ip6AddrWithMask
v6( std::string_view text ) {
   return Velon::Ip6AddrWithMask( text );
}

class Tale {
 public:
   void tell( const std::string & line ) { text_ += line + "\n"; }
   /// What was told since the last call.
   std::string seen() { return std::exchange( text_, {} ); }

 private:
   std::string text_;
};

inline std::string
orDash( std::string_view text ) {
   return text.empty() ? "-" : std::string( text );
}

/// What the recorders of both kinds of view share. `also` adds to each line, `then` is the client's
/// reaction to the line just told, as in "addrChanged 2".
class Recording {
 public:
   std::function< std::string() > also;
   std::function< void( const std::string & what ) > then;

 protected:
   explicit Recording( Tale & tale ) : tale_( tale ) {}
   void told( const char * counter, uint32_t value, const std::string & record ) {
      const std::string what = counter + ( " " + std::to_string( value ) );
      tale_.tell( what + ":" + record + ( also ? also() : "" ) );
      if( then ) then( what );
   }

 private:
   Tale & tale_;
};

class StatusRecorder final : public IpGen::Status::NotifieeConst, public Recording {
 public:
   StatusRecorder( const IpGen::Status::Ptr & view, Tale & tale ) : Recording( tale ) {
      notifierIs( view );
      isRegisteredNotifieeIs( true );
   }
   static std::string record( const IpGen::Status & v ) {
      return " " + orDash( v.changedVrf().view() ) + " " + orDash( v.changedIntf().view() ) + " " +
             orDash( v.changedAddr().toString() );
   }
   void onVrfCollectionChanged() override {
      tell( "vrfCollectionChanged", notifier()->vrfCollectionChanged() );
   }
   void onIntfInVrfChanged() override {
      tell( "intfInVrfChanged", notifier()->intfInVrfChanged() );
   }
   void onAddrChanged() override { tell( "addrChanged", notifier()->addrChanged() ); }
   void onActiveAddrChanged() override {
      tell( "activeAddrChanged", notifier()->activeAddrChanged() );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "StatusRecorder", 0 };

 private:
   void tell( const char * counter, uint32_t value ) {
      told( counter, value, record( *notifier() ) );
   }
};

class IntfRecorder final : public IpGen::IntfStatus::NotifieeConst, public Recording {
 public:
   IntfRecorder( const IpGen::IntfStatus::Ptr & view, Tale & tale ) : Recording( tale ) {
      notifierIs( view );
      isRegisteredNotifieeIs( true );
   }
   static std::string record( const IpGen::IntfStatus & v ) {
      return " " + orDash( v.changedIntf().view() ) + " " + orDash( v.changedAddr().toString() );
   }
   void onIntfStatusChanged() override {
      tell( "intfStatusChanged", notifier()->intfStatusChanged() );
   }
   void onDpRoutingChanged() override {
      tell( "dpRoutingChanged", notifier()->dpRoutingChanged() );
   }
   void onAddrChanged() override { tell( "addrChanged", notifier()->addrChanged() ); }
   void onActiveAddrChanged() override {
      tell( "activeAddrChanged", notifier()->activeAddrChanged() );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "IntfRecorder", 0 };

 private:
   void tell( const char * counter, uint32_t value ) {
      told( counter, value, record( *notifier() ) );
   }
};

/// The messages of the handles that `setting` switches on, one a line: "SrcIntf/8 SrcIntf: text".
class Traces {
 public:
   explicit Traces( const char * setting ) {
      sink_ = { &write, &tale_ };
      before_ = Vistrel::sinkIs( &sink_ );
      EXPECT_TRUE( Vistrel::settingIs( setting ) );
   }
   ~Traces() {
      Vistrel::settingIs( "" );
      Vistrel::sinkIs( before_ );
   }
   std::string seen() { return tale_.seen(); }

 private:
   static void write( void * tale, const Vistrel::Message & m ) {
      static_cast< Tale * >( tale )->tell( std::string( m.handle ) + "/" +
                                           std::to_string( m.level ) + " " + m.source + ": " +
                                           std::string( m.text ) );
   }
   Tale tale_;
   Vistrel::Sink sink_;
   const Vistrel::Sink * before_;
};

// What differs between the families' records.

struct V4 {
   using Status = Ip::Status;
   using VrfStatus = Ip::VrfIpIntfStatus;
   using Record = Ip::IpIntfStatus;
   static Zek::Ptr< Status > statusMade() { return Ip::statusFactory(); }
   static Zek::Ptr< Record > recordMade( Intf i ) {
      return Ip::ipIntfStatusFactory( i, L3::Intf::statusFactory( i ) );
   }
   static IpGen::Status::Ptr viewOf( const Zek::Ptr< Status > & s ) {
      return IpGen::ipv4StatusFactory( s );
   }
   static IpGen::IntfStatus::Ptr viewOf( const Zek::Ptr< VrfStatus > & s ) {
      return IpGen::ipv4IntfStatusFactory( s );
   }
   static void is( Status & s, const Zek::Ptr< const Record > & r ) { s.ipIntfStatusIs( r ); }
   static void is( VrfStatus & s, const Zek::Ptr< const Record > & r ) { s.ipIntfStatusIs( r ); }
   static void del( Status & s, Intf i ) { s.ipIntfStatusDel( i ); }
   static void del( VrfStatus & s, Intf i ) { s.ipIntfStatusDel( i ); }
   static Zek::Ptr< VrfStatus > vrfIs( Status & s, const Vrf & v ) {
      return s.vrfIpIntfStatusIs( v );
   }
   static void vrfDel( Status & s, const Vrf & v ) { s.vrfIpIntfStatusDel( v ); }
};

struct V6 {
   using Status = Ip6::Status;
   using VrfStatus = Ip6::VrfIp6IntfStatus;
   using Record = Ip6::IntfStatus;
   static Zek::Ptr< Status > statusMade() { return Ip6::statusFactory(); }
   static Zek::Ptr< Record > recordMade( Intf i ) {
      return Ip6::intfStatusFactory( i, L3::Intf::statusFactory( i ) );
   }
   static IpGen::Status::Ptr viewOf( const Zek::Ptr< Status > & s ) {
      return IpGen::ipv6StatusFactory( s );
   }
   static IpGen::IntfStatus::Ptr viewOf( const Zek::Ptr< VrfStatus > & s ) {
      return IpGen::ipv6IntfStatusFactory( s );
   }
   static void is( Status & s, const Zek::Ptr< const Record > & r ) { s.intfIs( r ); }
   static void is( VrfStatus & s, const Zek::Ptr< const Record > & r ) { s.ip6IntfStatusIs( r ); }
   static void del( Status & s, Intf i ) { s.intfDel( i ); }
   static void del( VrfStatus & s, Intf i ) { s.ip6IntfStatusDel( i ); }
   static Zek::Ptr< VrfStatus > vrfIs( Status & s, const Vrf & v ) {
      return s.vrfIp6IntfStatusIs( v );
   }
   static void vrfDel( Status & s, const Vrf & v ) { s.vrfIp6IntfStatusDel( v ); }
};

inline void
addrIs( Ip6::IntfStatus & record, std::string_view addr ) {
   record.addrIs( Ip6::AddressInfo( v6( addr ) ) );
}

/// Records of a family and the two views of them, the second of VRF red.
template< class F >
struct World {
   using Record = Zek::Ptr< typename F::Record >;

   Tale tale;
   Zek::Ptr< typename F::Status > status = F::statusMade();
   Zek::Ptr< typename F::VrfStatus > red = F::vrfIs( *status, Vrf( "red" ) );
   IpGen::Status::Ptr view = F::viewOf( status );
   IpGen::IntfStatus::Ptr redView = F::viewOf( red );

   /// A new record in the system and in VRF red, in the place of an earlier one.
   Record intfIs( const char * name ) {
      Record record = F::recordMade( Intf( name ) );
      F::is( *status, record );
      F::is( *red, record );
      return record;
   }
   /// Out of the system first, then of the VRF.
   void intfDel( const char * name ) {
      F::del( *status, Intf( name ) );
      F::del( *red, Intf( name ) );
   }
   std::string seen() { return tale.seen(); }
};

} // namespace Generic
