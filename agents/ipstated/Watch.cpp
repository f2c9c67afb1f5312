#include "agents/ipstated/Watch.h"

#include "agents/ipstated/Reflect.h"

#include <utility>

namespace Ipstated {

namespace {

const std::string absent = "-";
const std::string present = "+";

/// Whether the collection's members belong to the record, as the children of a directory do.
bool
owns( const Zek::AttributeRow & row ) {
   return row.has( Zek::ownsMembers );
}

bool
isStored( const Zek::AttributeRow & row ) {
   return row.kind == Zek::AttributeKind::plain && row.isStored() && row.stored;
}

} // namespace

Watch::Watch( const Zek::Entity & record, ChangeSink sink )
   : Watch( record, std::make_shared< ChangeSink >( std::move( sink ) ) ) {}

Watch::Watch( const Zek::Entity & record, std::shared_ptr< ChangeSink > sink )
   : record_( record ),
     sink_( std::move( sink ) ),
     path_( record.fullName().toString() ) {
   attach();
}

Watch::~Watch() = default;

void
Watch::attach() {
   const Zek::TypeDescriptor & type = *record_.fwkType();
   for( const Zek::AttributeRow * row : rowsOf( type ) ) {
      if( isStored( *row ) ) {
         values_[row->id] = textOf( *row );
      } else if( row->collection ) {
         forEachMember( record_, *row, [&]( const Zek::PtrInterface & member, const void * key ) {
            members_[memberName( *row, key )] = memberOf( *row, member );
         } );
      }
   }
   if( type.relay ) {
      relay_ = type.relay( record_, *this );
   }
}

std::string
Watch::textOf( const Zek::AttributeRow & row ) const {
   std::string text;
   row.stored->append( row.address( &record_ ), text );
   return text;
}

Watch::Member
Watch::memberOf( const Zek::AttributeRow & row, const Zek::PtrInterface & member ) {
   Member known;
   known.object = &member;
   known.text = present;
   const void * value = valueOf( row, member );
   if( value && !row.has( Zek::keyIsField ) ) {
      known.text.clear();
      row.type->values->append( value, known.text );
   }
   if( owns( row ) ) {
      if( auto entity = dynamic_cast< const Zek::Entity * >( &member ) ) {
         known.watch.reset( new Watch( *entity, sink_ ) );
      }
   }
   return known;
}

void
Watch::onAttribute( const Zek::AttributeRow & row ) {
   if( isStored( row ) ) {
      std::string now = textOf( row );
      std::string before = std::exchange( values_[row.id], now );
      tell( row.name, before, now );
   }
}

void
Watch::onMember( const Zek::AttributeRow & row, const void * key ) {
   std::string name = memberName( row, key );
   const Zek::PtrInterface * member = row.collection->find( &record_, key );
   auto known = members_.find( name );
   std::string before = known == members_.end() ? absent : known->second.text;
   if( !member ) {
      if( known != members_.end() ) {
         members_.erase( known );
      }
      tell( name, before, absent );
      return;
   }
   // The line of the member comes before those of what happens in it.
   if( known != members_.end() && known->second.object == member && known->second.watch ) {
      tell( name, before, known->second.text );
      return;
   }
   Member now = memberOf( row, *member );
   std::string text = now.text;
   members_[name] = std::move( now );
   tell( name, before, text );
}

void
Watch::tell( const std::string & what, const std::string & before, const std::string & now ) {
   ( *sink_ )( { printable( what + "  " + path_ ), printable( before ), printable( now ) } );
}

} // namespace Ipstated
