#include "framework/DynamicTypes.h"

#include "framework/DynamicParts.h"
#include "framework/Exception.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <unordered_set>

namespace Zek {

namespace {

// Bounds of one type: places stand in 16 bits, and what is nested in values multiplies.
constexpr uint32_t mostValueBytes = 4096;
constexpr uint32_t mostObjectBytes = UINT16_MAX;
constexpr uint32_t mostLeaves = 1024;
constexpr size_t mostNested = 32;

/// All that were ever made. They stay: records, allocation counts and other types point to them.
struct Made {
   std::vector< std::unique_ptr< DynamicType > > types;
   std::unordered_set< const TypeDescriptor * > known;
   std::shared_mutex mutex;
};

Made &
made() {
   static Made & all = *new Made;
   return all;
}

/// What a declaration cannot bring is listed as something computed that is not here.
[[noreturn]] void
throwAbsent( const AttributeRow & row, const char * verb ) {
   throw RejectedException( std::string( row.part->owner->fullName ) + "::" + row.name +
                            " cannot be " + verb +
                            ": it is code of the processes that were linked with the type" );
}

void
absentIs( AttributeRow & row, bool isComputed ) {
   row.kind = AttributeKind::derived;
   row.flags =
      static_cast< uint16_t >( abortsOnRead | ( isComputed ? row.flags & pointsToConst : 0 ) );
   row.keyType = nullptr;
   row.readThunk = []( const void *, void *, const AttributeRow & r ) { throwAbsent( r, "read" ); };
}

} // namespace

bool
isDynamic( const TypeDescriptor & type ) {
   const std::shared_lock lock( made().mutex );
   return made().known.contains( &type );
}

DynamicType::DynamicType( const Declaration & declaration )
   : TypeDescriptor{},
     declared( declaration ),
     companion( *this ) {
   fullName = declared.fullName.c_str();
   kind = declared.kind;
   isRecord = kind != TypeKind::opaque;
   isNamed = declared.isNamed;
   hasNotifier = declared.hasNotifier;
   hasAttrLog = declared.hasAttrLog && kind == TypeKind::entity;
   for( const auto & e : declared.enumerators )
      enumeratorRows.push_back( { e.name.c_str(), e.value } );
   enumerators = enumeratorRows;
   rows.reserve( declared.attributes.size() );
   parts.resize( declared.attributes.size() );
   for( const auto & a : declared.attributes ) {
      AttributeRow row{};
      row.name = a.name.c_str();
      row.id = a.id;
      row.kind = a.kind;
      row.flags = a.flags & static_cast< uint16_t >( ~isStoredValue );
      row.part = &parts[rows.size()];
      parts[rows.size()].owner = this;
      rows.push_back( row );
   }
   attributes = rows;
   if( kind != TypeKind::opaque ) genericIf = &companion;
}

// -- Making -----------------------------------------------------------------------------------

class DynamicTypes::Maker {
 public:
   explicit Maker( DynamicTypes & set ) : set_( set ) {}
   Maker( const Maker & ) = delete;
   Maker & operator=( const Maker & ) = delete;
   ~Maker() {
      // Values among them are of types among them.
      for( auto & type : types_ ) {
         type->fixed.clear();
         for( DynamicPart & part : type->parts ) part.initial = part.max = GenericValue();
      }
   }

   void make( const Declarations & declarations ) {
      for( const Declaration & declaration : declarations ) begin( declaration );
      for( auto & type : types_ ) resolve( *type );
      for( auto & type : types_ ) finish( *type, 0 );
      for( auto & type : types_ ) collections( *type );
      for( auto & type : types_ ) last( *type );
   }
   void commit() {
      const std::unique_lock lock( made().mutex );
      for( auto & type : types_ ) {
         set_.attributes_ += costOf( type->declared );
         set_.types_.emplace( type->fullName, type.get() );
         if( set_.isRegistered_ ) typeNodeIs( *type );
         made().known.insert( type.get() );
         made().types.push_back( std::move( type ) );
      }
      types_.clear();
   }

 private:
   enum class Progress : uint8_t { begun, underWay, done };
   using Attribute = Declaration::Attribute;

   [[noreturn]] static void refuse( const DynamicType & type, const std::string & problem ) {
      throwRangeException( "declaration of '" + type.declared.fullName + "': " + problem );
   }
   [[noreturn]] static void refuse( const DynamicType & type, const AttributeRow & row,
                                    const std::string & problem ) {
      refuse( type, "attribute '" + std::string( row.name ) + "' " + problem );
   }
   static size_t costOf( const Declaration & d ) {
      return d.attributes.size() + d.enumerators.size() + 1;
   }
   static const Attribute & declaredOf( const DynamicType & type, const AttributeRow & row ) {
      return type.declared.attributes[static_cast< size_t >( &row - type.rows.data() )];
   }
   static DynamicPart & partOf( DynamicType & type, const AttributeRow & row ) {
      return type.parts[static_cast< size_t >( &row - type.rows.data() )];
   }

   // -- 1. Which types there are

   /// The type is here already, or must be: no declaration brings what is written in C++.
   bool isThere( const Declaration & d ) const {
      if( isFrameworkType( d.fullName ) || set_.types_.contains( d.fullName ) ) return true;
      const TypeDescriptor * linked = typeNode( d.fullName );
      if( !linked || set_.linked_ == Linked::used ) return linked;
      return linked->kind == TypeKind::opaque && !d.maxBytes;
   }
   void begin( const Declaration & d ) {
      if( isThere( d ) || byName_.contains( d.fullName ) ) return;
      cost_ += costOf( d );
      if( set_.types_.size() + types_.size() >= set_.limits.types ||
          set_.attributes_ + cost_ > set_.limits.attributes ) {
         throwRangeException( "declaration of '" + d.fullName +
                              "': " + std::to_string( set_.types_.size() ) + " types with " +
                              std::to_string( set_.attributes_ ) +
                              " attributes were made, and no more are" );
      }
      types_.push_back( std::make_unique< DynamicType >( d ) );
      byName_[d.fullName] = types_.back().get();
      progress_[types_.back().get()] = Progress::begun;
   }
   const TypeDescriptor & named( const DynamicType & by, const std::string & name ) const {
      auto at = byName_.find( name );
      if( at != byName_.end() ) return *at->second;
      if( const TypeDescriptor * type = set_.type( name ) ) return *type;
      const TypeDescriptor * linked = typeNode( name );
      if( !linked ) refuse( by, "unknown type '" + name + "'" );
      return *linked;
   }
   /// The type, where it was made at run time.
   static const DynamicType * dynamic( const TypeDescriptor & type ) {
      return isDynamicEntity( type ) || isDynamic( type )
                ? static_cast< const DynamicType * >( &type )
                : nullptr;
   }
   const DynamicType * dynamicBase( const TypeDescriptor & type ) const {
      auto at = byName_.find( type.fullName );
      return at != byName_.end() ? at->second : dynamic( type );
   }

   // -- 2. What they name

   std::vector< ParameterRow > parameters( const DynamicType & type,
                                           const std::vector< Declaration::Parameter > & list ) {
      std::vector< ParameterRow > out;
      for( const auto & p : list ) {
         out.push_back( { p.name.c_str(), &named( type, p.type ), p.isPointer, p.isConst } );
         if( p.isPointer != out.back().type->isCounted() ) {
            refuse( type, "parameter '" + p.name + "' is a pointer to a counted type, or a value" );
         }
      }
      return out;
   }
   void resolve( DynamicType & type ) {
      const Declaration & d = type.declared;
      if( !d.base.empty() ) type.base = &named( type, d.base );
      if( ( type.isEntity() || d.isNamed ) && !type.base ) refuse( type, "an entity's base" );
      if( type.base && !type.base->isCounted() ) refuse( type, "a counted base" );
      if( type.base && type.kind == TypeKind::entity ) {
         type.dynamicBase = dynamicBase( *type.base );
         if( !type.dynamicBase && type.base != &Entity::zekTypeDescriptor_ ) {
            refuse( type, "it derives from '" + d.base + "', which is linked" );
         }
      }
      type.parameterRows = parameters( type, d.constructorParameters );
      type.constructorParameters = type.parameterRows;
      for( AttributeRow & row : type.rows ) {
         const Attribute & a = declaredOf( type, row );
         if( !a.type.empty() ) row.type = &named( type, a.type );
         if( !a.keyType.empty() ) row.keyType = &named( type, a.keyType );
         DynamicPart & part = partOf( type, row );
         part.parameters = parameters( type, a.parameters );
         row.parameters = part.parameters;
      }
   }

   // -- 3. Values and layouts

   /// What the row stands on is made first; `depth` of values in values, or of bases.
   void need( DynamicType & by, const TypeDescriptor & type, size_t depth ) {
      auto at = byName_.find( type.fullName );
      if( at == byName_.end() || at->second != &type ) return;
      if( depth >= mostNested ) refuse( by, "it nests too deep" );
      finish( *at->second, depth + 1 );
   }
   void finish( DynamicType & type, size_t depth ) {
      Progress & progress = progress_[&type];
      if( progress == Progress::done ) return;
      if( progress == Progress::underWay ) refuse( type, "it contains itself" );
      progress = Progress::underWay;
      switch( type.kind ) {
      case TypeKind::enumeration:
         if( type.enumerators.empty() ) refuse( type, "an enumeration without enumerators" );
         fillEnumerationOps( type );
         type.leaves = 1;
         break;
      case TypeKind::opaque:
         fillOpaqueOps( type );
         type.leaves = 1;
         break;
      case TypeKind::value:
         value( type, depth );
         break;
      case TypeKind::entity:
         entity( type, depth );
         break;
      default:
         for( AttributeRow & row : type.rows ) listed( type, row );
         break;
      }
      progress = Progress::done;
   }
   /// Operations, constants, and what is not here.
   void listed( DynamicType & type, AttributeRow & row ) {
      const Attribute & a = declaredOf( type, row );
      if( row.kind == AttributeKind::callable ) {
         row.callThunk = []( void *, const GenericValue *, GenericValue *,
                             const AttributeRow & r ) { throwAbsent( r, "called" ); };
         return;
      }
      need( type, *row.type, 0 );
      if( row.kind == AttributeKind::constant && row.type->values ) {
         DynamicPart & part = partOf( type, row );
         part.initial = read( type, row, a.value );
         row.stored = row.type->values;
         row.readThunk = []( const void *, void * result, const AttributeRow & r ) {
            r.stored->copy( result, r.part->initial.address() );
         };
         return;
      }
      absentIs( row, row.kind == AttributeKind::derived );
   }
   static GenericValue read( const DynamicType & type, const AttributeRow & row,
                             const std::string & text ) {
      try {
         return GenericValue::fromText( *row.type, text );
      } catch( const Exception & e ) {
         refuse( type, row, e.what() );
      }
   }
   /// Gives the row a place behind what has one.
   static void place( DynamicType & type, AttributeRow & row, uint32_t size, uint32_t alignment,
                      uint32_t most ) {
      const uint32_t at = ( type.bytes + alignment - 1 ) & ~( alignment - 1 );
      if( alignment > alignof( std::max_align_t ) || size > most || at > most - size ) {
         refuse( type, row, "makes it larger than " + std::to_string( most ) + " bytes" );
      }
      row.place = static_cast< uint16_t >( at );
      type.bytes = at + size;
   }
   /// A value or a pointer in the object. False where no value of its type can be held.
   bool stored( DynamicType & type, AttributeRow & row, uint32_t most, size_t depth ) {
      const Attribute & a = declaredOf( type, row );
      if( row.type->isCounted() ) {
         row.stored = &valueOps< Ptr< PtrInterface > >;
      } else {
         need( type, *row.type, depth );
         if( !row.type->values ) return false;
         row.stored = row.type->values;
         row.flags |= isStoredValue;
      }
      DynamicPart & part = partOf( type, row );
      if( row.type->values && !a.initial.empty() ) part.initial = read( type, row, a.initial );
      if( row.type->values && !a.max.empty() ) {
         part.max = read( type, row, a.max );
         if( !row.stored->isOrdered() ) refuse( type, row, "has a bound, and no order" );
         part.refusal = a.refusal;
      }
      place( type, row, row.stored->size, row.stored->alignment, most );
      return true;
   }
   static uint32_t leavesOf( const TypeDescriptor & type ) {
      const DynamicType * made = type.kind == TypeKind::value ? dynamic( type ) : nullptr;
      return made ? made->leaves : 1;
   }
   void value( DynamicType & type, size_t depth ) {
      for( AttributeRow & row : type.rows ) {
         const bool isSetRow = row.kind == AttributeKind::collection && row.has( isSet );
         if( isSetRow ) {
            need( type, *row.keyType, depth );
            if( row.keyType != row.type || !isKeyType( *row.keyType ) ) {
               refuse( type, row, "is a set of keys that have no order and hash" );
            }
            place( type, row, sizeof( std::vector< AnyKey > ), alignof( std::vector< AnyKey > ),
                   mostValueBytes );
            fillSet( type, row, partOf( type, row ) );
            ++type.leaves;
         } else if( row.kind == AttributeKind::constructorParameter ) {
            if( !stored( type, row, mostValueBytes, depth ) ) {
               // Nobody can tell where the next field begins.
               type.bytes = 0;
               type.fields.clear();
               for( AttributeRow & each : type.rows ) {
                  if( each.kind != AttributeKind::callable ) absentIs( each, false );
                  each.addressThunk = nullptr;
               }
               return;
            }
            row.addressThunk = &dynamicAddress;
            auto at = byName_.find( row.type->fullName );
            type.leaves += at != byName_.end() ? at->second->leaves : leavesOf( *row.type );
         } else {
            listed( type, row );
            continue;
         }
         if( type.leaves > mostLeaves ) refuse( type, "it has too many parts" );
         type.fields.push_back( &row );
      }
      if( !type.declared.comparedBy.empty() ) {
         type.compared = type.attribute( type.declared.comparedBy );
         if( !type.compared || !type.compared->isStored() ) {
            refuse( type,
                    "it compares by '" + type.declared.comparedBy + "', which it does not have" );
         }
      }
      for( const AttributeRow * field : type.fields ) {
         const bool counts = !type.compared || type.compared == field;
         if( type.declared.isOrdered && counts && !field->stored->isOrdered() ) {
            refuse( type, *field, "has no order" );
         }
      }
      for( const ParameterRow & parameter : type.parameterRows ) {
         const AttributeRow * field = type.attribute( parameter.name );
         if( !field || !field->has( isStoredValue ) || field->type != parameter.type ) {
            if( field && field->isStored() && parameter.isPointer ) {
               type.parameterAttributes.push_back( field );
               continue;
            }
            refuse( type, "parameter '" + std::string( parameter.name ) + "' is no field" );
         }
         type.parameterAttributes.push_back( field );
      }
      fillValueOps( type );
   }
   static bool isKeyType( const TypeDescriptor & type ) {
      return type.values && type.values->isOrdered() && type.values->isHashed();
   }
   void entity( DynamicType & type, size_t depth ) {
      type.bytes = sizeof( DynamicEntity );
      if( const DynamicType * base = type.dynamicBase ) {
         need( type, *base, depth );
         type.bytes = base->bytes;
         const auto & above = base->rows;
         if( !above.empty() && !type.rows.empty() && type.rows.front().id <= above.back().id ) {
            refuse( type, type.rows.front(), "has a number of its base" );
         }
         if( base->isNamed != type.isNamed ) refuse( type, "it is named as its base is not" );
      }
      for( AttributeRow & row : type.rows ) attribute( type, row );
   }
   void attribute( DynamicType & type, AttributeRow & row ) {
      const Attribute & a = declaredOf( type, row );
      switch( row.kind ) {
      case AttributeKind::constructorParameter:
      case AttributeKind::plain:
      case AttributeKind::pointer:
         if( ( row.kind == AttributeKind::pointer ) != row.type->isCounted() &&
             row.kind != AttributeKind::constructorParameter ) {
            refuse( type, row, "is a pointer to a counted type, or a value" );
         }
         if( row.has( isCounter ) &&
             ( row.type->kind != TypeKind::scalar || row.type == &TypeOf< bool >::descriptor ||
               row.type == &TypeOf< double >::descriptor ) ) {
            refuse( type, row, "counts, and is no whole number" );
         }
         if( !stored( type, row, mostObjectBytes, 0 ) ) {
            absentIs( row, false );
            return;
         }
         fillPlain( row );
         if( !a.isWritable ) row.writeThunk = nullptr;
         if( row.has( isCounter ) ) {
            fillCounter( row, partOf( type, row ), a.increments, a.decrements );
         }
         return;
      case AttributeKind::collection:
         need( type, *row.keyType, 0 );
         if( !row.type->isCounted() ) need( type, *row.type, 0 );
         place( type, row, sizeof( void * ), alignof( void * ), mostObjectBytes );
         return; // its members may be of a type that has no rows yet
      default:
         listed( type, row );
         return;
      }
   }

   // -- 4. Collections, when all types have their rows

   void collections( DynamicType & type ) {
      if( type.kind != TypeKind::entity ) return;
      for( AttributeRow & row : type.rows ) {
         if( row.kind == AttributeKind::collection ) collection( type, row );
      }
   }
   static const AttributeRow * keyOf( const TypeDescriptor & member ) {
      for( const TypeDescriptor * part = &member; part; part = part->base ) {
         for( const AttributeRow & row : part->attributes ) {
            if( row.has( isKey ) ) return &row;
         }
      }
      return nullptr;
   }
   void collection( DynamicType & type, AttributeRow & row ) {
      using Form = DynamicCollection::Form;
      const bool isEntityRow = row.has( ownsMembers ) || row.has( refersToMembers );
      if( isEntityRow != row.type->isCounted() ||
          ( isEntityRow && ( !row.type->isEntity() || row.has( AttributeFlag::isOrdered ) ) ) ) {
         refuse( type, row, "is a hashed collection of entities, or one of values" );
      }
      if( !isEntityRow && !row.type->values ) return absentIs( row, false );
      if( !isKeyType( *row.keyType ) ) {
         if( !row.keyType->values ) return absentIs( row, false );
         refuse( type, row, "has keys without an order and a hash" );
      }
      const AttributeRow * keyRow = nullptr;
      Form form = row.has( isSet ) ? Form::set : Form::values;
      if( row.has( keyIsField ) ) {
         form = Form::fields;
         keyRow = row.type->attribute( declaredOf( type, row ).keyField );
         if( !keyRow || !keyRow->has( isStoredValue ) )
            refuse( type, row, "has no key in its values" );
      } else if( isEntityRow ) {
         form = row.has( ownsMembers ) ? Form::owned : Form::referred;
         if( form == Form::owned && !canBeMade( *row.type ) ) return absentIs( row, false );
         keyRow = keyOf( *row.type );
         if( !keyRow && !row.type->isNamed ) refuse( type, row, "has members without a key" );
         if( keyRow && !keyRow->isStored() ) return absentIs( row, false );
      }
      const TypeDescriptor & key = !keyRow && isEntityRow ? TypeOf< Name >::descriptor
                                   : keyRow               ? *keyRow->type
                                                          : *row.keyType;
      if( &key != row.keyType ) refuse( type, row, "has keys of another type than its members" );
      if( form == Form::set && row.type != row.keyType )
         refuse( type, row, "is a set of its keys" );
      fillCollection( type, row, partOf( type, row ), form, keyRow );
      if( form != Form::owned ) return;
      const auto & takes = row.type->constructorParameters;
      for( size_t i = 0; keyRow && i < takes.size(); ++i ) {
         if( std::string_view( takes[i].name ) == keyRow->name ) {
            partOf( type, row ).collection->keyParameter = i;
         }
      }
   }

   // -- 5. How they are made

   /// Whether a new one can be made of its constructor's parameters, each of which it holds.
   bool canBeMade( const TypeDescriptor & type ) const {
      auto at = byName_.find( type.fullName );
      if( at == byName_.end() || at->second != &type ) return type.isMade();
      const DynamicType & made = *at->second;
      if( !made.declared.isMade || made.kind != TypeKind::entity ) return false;
      for( size_t i = made.isNamed ? 1 : 0; i < made.parameterRows.size(); ++i ) {
         const AttributeRow * row = made.attribute( made.parameterRows[i].name );
         if( !row || !row->isStored() ) return false;
      }
      const AttributeRow * key = keyOf( type );
      return !key || key->isStored();
   }
   void last( DynamicType & type ) {
      if( type.kind != TypeKind::entity ) return;
      for( size_t i = 0; i < type.parameterRows.size(); ++i ) {
         const ParameterRow & parameter = type.parameterRows[i];
         const bool isName = i == 0 && type.isNamed;
         const AttributeRow * row = isName ? nullptr : type.attribute( parameter.name );
         const TypeDescriptor * wanted = isName ? &TypeOf< Name >::descriptor
                                         : row  ? row->type
                                                : nullptr;
         if( wanted != parameter.type ) {
            refuse( type,
                    "parameter '" + std::string( parameter.name ) + "' is none of its attributes" );
         }
         type.parameterAttributes.push_back( row );
      }
      if( type.isNamed && type.parameterRows.empty() )
         refuse( type, "a named type without a name" );
      for( const DynamicType * part = &type; part; part = part->dynamicBase ) {
         for( const AttributeRow & row : part->rows ) {
            if( !declaredOf( *part, row ).isName ) continue;
            if( !row.isStored() || row.stored->wireSize != Wire::countsItself ) {
               refuse( type, row, "is the name, and no text" );
            }
            type.nameRow = &row;
         }
      }
      for( const auto & fixed : type.declared.fixed ) {
         const AttributeRow * row = type.attribute( fixed.parameter );
         if( !row || !row->has( isStoredValue ) ) {
            refuse( type, "it fixes '" + fixed.parameter + "', which it does not have" );
         }
         type.fixed.push_back( { row, read( type, *row, fixed.value ) } );
      }
      type.objects.emplace( type.fullName, type.bytes );
      type.allocations = &*type.objects;
      if( canBeMade( type ) ) {
         fillEntity( type );
      } else {
         type.hasAttrLog = false;
      }
   }

   DynamicTypes & set_;
   size_t cost_ = 0;
   std::vector< std::unique_ptr< DynamicType > > types_;
   std::map< std::string, DynamicType *, std::less<> > byName_;
   std::map< const DynamicType *, Progress > progress_;
};

// -- Sets of types ----------------------------------------------------------------------------

DynamicTypes::DynamicTypes( Linked linked ) : linked_( linked ) {}

DynamicTypes &
DynamicTypes::ofProcess() {
   static DynamicTypes & types = []() -> DynamicTypes & {
      auto & all = *new DynamicTypes( Linked::used ); // its types stay
      all.isRegistered_ = true;
      return all;
   }();
   return types;
}

void
DynamicTypes::declare( const Declarations & declarations ) {
   Maker maker( *this );
   maker.make( declarations );
   maker.commit();
}

const TypeDescriptor *
DynamicTypes::type( std::string_view fullName ) const {
   auto at = types_.find( fullName );
   if( at != types_.end() ) return at->second;
   const bool isTaken = linked_ == Linked::used || isFrameworkType( fullName );
   return isTaken ? typeNode( fullName ) : nullptr;
}

} // namespace Zek
