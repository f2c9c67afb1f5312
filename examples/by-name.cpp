#include "framework/Generic.h"
#include <iostream>

using Operation = Zek::GenericOperation;
using Value = Zek::GenericValue;

int
main() {
   const Zek::TypeDescriptor & type = *Zek::typeNode( "Ip::IpIntfConfig" );
   const Zek::GenericIf & generic = *type.genericIf;

   Value intfId = Value::fromText( *type.constructorParameters[0].type, "Ethernet1" );
   Value record = generic.genericIfFromCtorArgs( { intfId } );
   std::cout << "made " << record.shape() << "\n";

   // Watched as long as this is held.
   auto watch = generic.genericIfNotifiee(
      *record.object(), [&]( const Zek::AttributeRow & row, const Value & key ) {
         Operation how = key.isNothing() ? Operation::read : Operation::lookUp;
         Value now = key.isNothing() ? generic.genericIfAttributeOp( record, how, row.id )
                                     : generic.genericIfAttributeOp( record, how, row.id, { key } );
         std::cout << row.name << " " << key.text() << " is now " << now.text() << "\n";
      } );

   auto set = [&]( const char * name, const char * text ) {
      try {
         Value value = Value::fromText( *generic.attribute( name ).type, text );
         generic.genericIfAttributeOp( record, Operation::write, name, { value } );
      } catch( const Zek::Exception & refused ) {
         std::cout << refused.what() << "\n";
      }
   };
   set( "scope", "link" );
   set( "scope", "link" ); // the same: no call
   set( "maxMssEgress", "70000" );
   set( "tcpMssMax", "9000" );
   const Zek::AttributeRow & secondaries = generic.attribute( "secondaryWithMask" );
   Value key = Value::fromText( *secondaries.keyType, "10.0.0.2/24" );
   generic.genericIfAttributeOp( record, Operation::add, secondaries.id, { key, Value( true ) } );
}
