#include "Ip/Ip.h"
#include <iostream>

struct Printer : Ip::IpIntfStatus::NotifieeConst {
   void onActiveAddrWithMask() override {
      std::cout << notifier()->intfId() << " is now " << notifier()->activeAddrWithMask() << "\n";
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static Zek::AllocTrackTypeInfo allocTrackTypeInfo_; // how many are alive
};
Zek::AllocTrackTypeInfo Printer::allocTrackTypeInfo_( "Printer", sizeof( Printer ) );

int
main() {
   auto directory = Ip::Input::statusFactory( "status" );
   Velon::IntfId ethernet1( "Ethernet1" );
   auto record = directory->ipIntfStatusIs( ethernet1, L3::Intf::statusFactory( ethernet1 ) );
   auto printer = Zek::allocate< Printer >();
   printer->notifierIs( record );           // what to watch
   printer->isRegisteredNotifieeIs( true ); // from now on

   record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.1/24" ) );
   record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.1/24" ) ); // the same: no call
   record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.2/24" ) );
}
