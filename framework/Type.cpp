#include "framework/Type.h"

#include "framework/ValueOps.h"

#include <atomic>

namespace Zek {

AttributeSink::~AttributeSink() = default;

void
AttributeSink::onRelay( NboAttrLog::FlowHead & ) {}

void
AttributeSink::onEntityLeaves() {}

void
AttributeSink::onNotificationException() {
   throw;
}

// -- Builtin types ----------------------------------------------------------------------------

namespace {

constexpr TypeDescriptor
builtin( const char * name, TypeKind kind, const ValueOps & ops ) {
   return { name, kind, false, false, false,   false,   nullptr,
            &ops, {},   {},    {},    nullptr, nullptr, nullptr };
}

} // namespace

#define ZEK_BUILTIN( T, name, kind )                                                               \
   constinit const TypeDescriptor TypeOf< T >::descriptor =                                        \
      builtin( name, TypeKind::kind, valueOps< T > )
ZEK_BUILTIN( bool, "bool", scalar );
ZEK_BUILTIN( uint8_t, "U8", scalar );
ZEK_BUILTIN( uint16_t, "U16", scalar );
ZEK_BUILTIN( uint32_t, "U32", scalar );
ZEK_BUILTIN( uint64_t, "U64", scalar );
ZEK_BUILTIN( int8_t, "S8", scalar );
ZEK_BUILTIN( int16_t, "S16", scalar );
ZEK_BUILTIN( int32_t, "S32", scalar );
ZEK_BUILTIN( int64_t, "S64", scalar );
ZEK_BUILTIN( double, "double", scalar );
ZEK_BUILTIN( String, "Zek::String", text );
ZEK_BUILTIN( Name, "Zek::Name", text );
#undef ZEK_BUILTIN

// -- Rows -------------------------------------------------------------------------------------

const AttributeRow *
TypeDescriptor::attribute( std::string_view name ) const {
   for( const TypeDescriptor * type = this; type; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) {
         if( name == row.name ) return &row;
      }
   }
   return nullptr;
}

const AttributeRow *
TypeDescriptor::attribute( uint16_t id ) const {
   for( const TypeDescriptor * type = this; type; type = type->base ) {
      if( type->attributes.empty() ) continue;
      // Numbers of one table are contiguous.
      size_t index = static_cast< size_t >( id ) - type->attributes.front().id;
      if( id >= type->attributes.front().id && index < type->attributes.size() ) {
         return &type->attributes[index];
      }
   }
   return nullptr;
}

const TypeDescriptor *
TypeDescriptor::ownerOf( const AttributeRow & row ) const {
   for( const TypeDescriptor * type = this; type; type = type->base ) {
      for( const AttributeRow & own : type->attributes ) {
         if( &own == &row ) return type;
      }
   }
   return nullptr;
}

bool
TypeDescriptor::isA( const TypeDescriptor & other ) const {
   for( const TypeDescriptor * type = this; type; type = type->base ) {
      if( type == &other ) return true;
   }
   return false;
}

// -- Registry ---------------------------------------------------------------------------------

// Chains of types by hash of their full name; only ever prepended to. Exported, so that copies of
// the library in one process share them.
constexpr size_t registryChains = 256;
extern IPSTATE_EXPORT std::atomic< const TypeDescriptor * > registry[registryChains];
constinit std::atomic< const TypeDescriptor * > registry[registryChains]{};

namespace {

uint32_t
hashName( std::string_view name ) {
   uint32_t hash = 2166136261u; // FNV-1a
   for( char c : name ) hash = ( hash ^ static_cast< unsigned char >( c ) ) * 16777619u;
   return hash;
}

const TypeDescriptor *
findInChain( const TypeDescriptor * head, uint32_t hash, std::string_view name ) {
   for( ; head; head = head->next ) {
      if( head->nameHash == hash && name == head->fullName ) return head;
   }
   return nullptr;
}

} // namespace

void
typeNodeIs( const TypeDescriptor & type ) {
   uint32_t hash = hashName( type.fullName );
   auto & chain = registry[hash % registryChains];
   const TypeDescriptor * head = chain.load( std::memory_order_acquire );
   do {
      if( findInChain( head, hash, type.fullName ) ) return;
      type.nameHash = hash;
      type.next = head;
   } while( !chain.compare_exchange_weak( head, &type, std::memory_order_acq_rel ) );
}

const TypeDescriptor *
typeNode( std::string_view fullName ) {
   uint32_t hash = hashName( fullName );
   return findInChain( registry[hash % registryChains].load( std::memory_order_acquire ), hash,
                       fullName );
}

void
forEachType( void ( *visit )( const TypeDescriptor &, void * ), void * context ) {
   for( auto & chain : registry ) {
      const TypeDescriptor * type = chain.load( std::memory_order_acquire );
      for( ; type; type = type->next ) visit( *type, context );
   }
}

namespace {

// The builtins register like every other type: when the library is loaded.
struct RegisterBuiltins {
   RegisterBuiltins() {
      typeNodeIs( TypeOf< bool >::descriptor );
      typeNodeIs( TypeOf< uint8_t >::descriptor );
      typeNodeIs( TypeOf< uint16_t >::descriptor );
      typeNodeIs( TypeOf< uint32_t >::descriptor );
      typeNodeIs( TypeOf< uint64_t >::descriptor );
      typeNodeIs( TypeOf< int8_t >::descriptor );
      typeNodeIs( TypeOf< int16_t >::descriptor );
      typeNodeIs( TypeOf< int32_t >::descriptor );
      typeNodeIs( TypeOf< int64_t >::descriptor );
      typeNodeIs( TypeOf< double >::descriptor );
      typeNodeIs( TypeOf< String >::descriptor );
      typeNodeIs( TypeOf< Name >::descriptor );
   }
} registerBuiltins;

} // namespace

} // namespace Zek
