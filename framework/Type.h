// Type descriptors: what every registered type says of itself at run time.
//
// A descriptor is a constant: the type's full name, its operations as a value, and one row per
// attribute with the attribute's name, number, kind and typed thunks. Generated code only fills
// tables; reading, writing, text, iteration and streaming are one interpreter each over the rows.
//
// Thunks take the object by untyped pointer. For a counted object that is the address of its
// PtrInterface, which stands at offset zero of every type.
//
// Descriptors are constant-initialised and live as long as the library is loaded. The registry is
// insert-only and may be read from any thread.

#pragma once

#include "framework/Export.h"
#include "framework/Name.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "framework/Wire.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Zek {

struct TypeDescriptor;
class AttributeSink;
class Entity;
class StreamAdapter;
namespace NboAttrLog {
struct Plan;
struct FlowHead;
} // namespace NboAttrLog
class GenericIf;
class GenericValue;
struct DynamicPart;

enum class TypeKind : uint8_t {
   scalar,       // bool, integers, double
   text,         // Zek::String, Zek::Name
   opaque,       // a value type written by hand: compared, hashed and printed as a whole
   enumeration,  //
   value,        // a record of fields
   entity,       // counted, in the tree
   object,       // counted, no entity
   stateMachine, // an entity whose attributes are its inputs
};

enum class AttributeKind : uint8_t {
   constructorParameter, // set once, no mutator
   plain,                // xIs( v )
   pointer,              // plain, to a counted object
   collection,           // xIs, xDel, xDelAll, xNotify
   constant,             // static accessor
   derived,              // computed
   callable,             // operation
};

/// What else is to be known of an attribute; a set of these.
enum AttributeFlag : uint16_t {
   isKey = 1,            // the member's key in a collection
   isCounter = 2,        // has xInc or xDec
   abortsOnRead = 4,     // reading it fails an assertion by contract: skip it
   isOrdered = 8,        // collection in key order; otherwise hashed order
   isSet = 16,           // collection of keys alone
   ownsMembers = 32,     // instantiating collection
   refersToMembers = 64, // pointers to members owned elsewhere
   isTestedFirst = 128,  // bound tested before the value is stored
   pointsToConst = 256,  // pointer or member that may not be changed through it
   keyIsField = 512,     // the key is one of the member value's fields
   isStaticCall = 1024,  // callable without an object
   isConstCall = 2048,   // callable on an object that may not be changed
   isStoredValue = 4096, // what stands at address() is the value itself: no pointer, no set
};

/// A value type's operations, for code that knows it by its descriptor only. Addresses are of
/// objects of exactly that type. The thunks of a C++ type know it; those of a type that was
/// declared at run time are told by the last argument whose they are.
struct ValueOps {
   uint32_t size;
   uint32_t alignment;
   bool isTrivial; // copied byte by byte, nothing to destroy
   void ( *constructThunk )( void *, const ValueOps & );
   void ( *copyThunk )( void *, const void *, const ValueOps & );
   void ( *destroyThunk )( void *, const ValueOps & );
   bool ( *equalThunk )( const void *, const void *, const ValueOps & );
   bool ( *lessThunk )( const void *, const void *, const ValueOps & ); // null when unordered
   uint32_t ( *hashThunk )( const void *, const ValueOps & );           // null when not hashed
   void ( *appendThunk )( const void *, std::string &, const ValueOps & );
   bool ( *readThunk )( std::string_view, void *, const ValueOps & );
   /// Null for pointers, which travel as paths.
   void ( *encodeThunk )( const void *, Wire::Encoder &, const ValueOps & );
   bool ( *decodeThunk )( Wire::Decoder &, void *, const ValueOps & );
   bool isBare; // its text is its bytes, whatever they are: commas, quotes and all
   /// Bytes of all its values in streams, else Wire::varies or Wire::countsItself.
   uint8_t wireSize;
   /// Null for all but numbers.
   uint64_t ( *wireBytesThunk )( const void *, const ValueOps & );
   /// Null where all that is read to encode the value stands in it.
   void ( *prefetchThunk )( const void *, const ValueOps & );

   bool isOrdered() const { return lessThunk; }
   bool isHashed() const { return hashThunk; }
   bool hasWireForm() const { return encodeThunk; }
   bool isWireNumber() const { return wireBytesThunk; }
   bool hasPrefetch() const { return prefetchThunk; }

   /// The type's zero value.
   void construct( void * at ) const { constructThunk( at, *this ); }
   /// Copy-constructs.
   void copy( void * at, const void * from ) const { copyThunk( at, from, *this ); }
   void destroy( void * at ) const { destroyThunk( at, *this ); }
   bool equal( const void * a, const void * b ) const { return equalThunk( a, b, *this ); }
   bool less( const void * a, const void * b ) const { return lessThunk( a, b, *this ); }
   uint32_t hash( const void * at ) const { return hashThunk( at, *this ); }
   /// Text form, as in a value's field.
   void append( const void * at, std::string & out ) const { appendThunk( at, out, *this ); }
   /// Assigns; false when it is no such text.
   bool read( std::string_view text, void * at ) const { return readThunk( text, at, *this ); }
   /// As in streams (framework/Wire.h).
   void encode( const void * at, Wire::Encoder & out ) const { encodeThunk( at, out, *this ); }
   /// Assigns; false, and the decoder says why, when there is no such value. Throws the type's
   /// own RangeException for a value that is one but out of bounds.
   bool decode( Wire::Decoder & in, void * at ) const { return decodeThunk( in, at, *this ); }
   /// A number's bytes in streams, the first one lowest.
   uint64_t wireBytes( const void * at ) const { return wireBytesThunk( at, *this ); }
   /// Fetches into the cache what else must be read to encode the value.
   void prefetch( const void * at ) const { prefetchThunk( at, *this ); }
};

/// One enumerator: name and number.
struct EnumeratorRow {
   const char * name;
   int64_t value;
};

/// One argument of a callable or of a constructor.
struct ParameterRow {
   const char * name;
   const TypeDescriptor * type;
   bool isPointer;
   bool isConst; // pointer: the object may not be changed through it
};

/// A collection, for code that knows it by its row only. Keys and values by untyped address;
/// thunks as in ValueOps.
struct CollectionOps {
   size_t ( *countThunk )( const void *, const CollectionOps & );
   const PtrInterface * ( *firstThunk )( const void *, const CollectionOps & );
   const PtrInterface * ( *afterThunk )( const void *, const void *, const CollectionOps & );
   const PtrInterface * ( *findThunk )( const void *, const void *, const CollectionOps & );
   /// Null for the `entity` collection alone: the key is the child's name.
   const void * ( *memberKeyThunk )( const PtrInterface *, const CollectionOps & );
   /// Null for sets and entities.
   const void * ( *memberValueThunk )( const PtrInterface *, const CollectionOps & );
   void ( *isThunk )( void *, const void *, const void * const *, const CollectionOps & );
   void ( *delThunk )( void *, const void *, const CollectionOps & );
   void ( *delAllThunk )( void *, const CollectionOps & );
   void ( *notifyThunk )( void *, const void *, const CollectionOps & );
   /// Null for collections that have no use for it.
   void ( *reserveThunk )( void *, size_t, const CollectionOps & ) = nullptr;
   /// Null for collections that are not keyed by a field of the value.
   const void * ( *valueKeyThunk )( const void *, const CollectionOps & ) = nullptr;

   bool hasMemberKey() const { return memberKeyThunk; }
   bool hasMemberValue() const { return memberValueThunk; }
   bool hasReserve() const { return reserveThunk; }
   bool hasValueKey() const { return valueKeyThunk; }

   size_t count( const void * object ) const { return countThunk( object, *this ); }
   /// The first member, and the one after `key` in the collection's order; null at the end.
   const PtrInterface * first( const void * object ) const { return firstThunk( object, *this ); }
   const PtrInterface * after( const void * object, const void * key ) const {
      return afterThunk( object, key, *this );
   }
   /// The member under `key`, or null.
   const PtrInterface * find( const void * object, const void * key ) const {
      return findThunk( object, key, *this );
   }
   /// Key and value of a member of this collection.
   const void * memberKey( const PtrInterface * member ) const {
      return memberKeyThunk( member, *this );
   }
   const void * memberValue( const PtrInterface * member ) const {
      return memberValueThunk( member, *this );
   }
   /// The typed mutators. `arguments`: for values the value; for keyed fields, null (the value is
   /// the key argument); for owning collections an array of addresses of the further constructor
   /// arguments; for references null (the key argument is a Ptr to the member).
   void is( void * object, const void * keyOrMember, const void * const * arguments ) const {
      isThunk( object, keyOrMember, arguments, *this );
   }
   void del( void * object, const void * key ) const { delThunk( object, key, *this ); }
   void delAll( void * object ) const { delAllThunk( object, *this ); }
   void notify( void * object, const void * key ) const { notifyThunk( object, key, *this ); }
   /// Makes room for members to come, where the collection is empty.
   void reserve( void * object, size_t members ) const { reserveThunk( object, members, *this ); }
   /// The key within a value.
   const void * valueKey( const void * value ) const { return valueKeyThunk( value, *this ); }
};

/// A set inside a value, for code that knows it by its row only. Keys by untyped address; thunks
/// as in ValueOps.
struct ValueSetOps {
   size_t ( *countThunk )( const void *, const ValueSetOps & );
   bool ( *hasThunk )( const void *, const void *, const ValueSetOps & );
   const void * ( *firstThunk )( const void *, const ValueSetOps & );
   const void * ( *afterThunk )( const void *, const void *, const ValueSetOps & );
   void ( *addThunk )( void *, const void *, const ValueSetOps & );
   void ( *removeThunk )( void *, const void *, const ValueSetOps & );
   void ( *removeAllThunk )( void *, const ValueSetOps & );

   size_t count( const void * object ) const { return countThunk( object, *this ); }
   bool has( const void * object, const void * key ) const {
      return hasThunk( object, key, *this );
   }
   /// The least key, and the one after `key`, be that one present or not; null at the end.
   const void * first( const void * object ) const { return firstThunk( object, *this ); }
   const void * after( const void * object, const void * key ) const {
      return afterThunk( object, key, *this );
   }
   void add( void * object, const void * key ) const { addThunk( object, key, *this ); }
   void remove( void * object, const void * key ) const { removeThunk( object, key, *this ); }
   void removeAll( void * object ) const { removeAllThunk( object, *this ); }
};

/// The steps of a counter, each null where the type has none. Thunks as in ValueOps.
struct CounterOps {
   void ( *incrementThunk )( void *, const void *, void *, const CounterOps & );
   void ( *decrementThunk )( void *, const void *, void *, const CounterOps & );
   void ( *reachThunk )( void *, const void *, const CounterOps & );

   bool hasIncrement() const { return incrementThunk; }
   bool hasDecrement() const { return decrementThunk; }
   /// By one when `by` is null. Assigns the new value to `result`.
   void increment( void * object, const void * by, void * result ) const {
      incrementThunk( object, by, result, *this );
   }
   void decrement( void * object, const void * by, void * result ) const {
      decrementThunk( object, by, result, *this );
   }
   /// Brings it to the value at `value`, by whichever operations the type has.
   void reach( void * object, const void * value ) const { reachThunk( object, value, *this ); }
};

/// One attribute of a type. Thunks as in ValueOps, each null where the attribute has no such thing.
struct AttributeRow {
   const char * name;
   uint16_t id;
   AttributeKind kind;
   uint16_t flags;
   /// Of a type that was declared at run time: where the attribute stands in its object, in bytes.
   uint16_t place;
   const TypeDescriptor * type;    // of the value, the collection's member or value, the result
   const TypeDescriptor * keyType; // collections
   const ValueOps * stored;        // of what stands at address(): value, set or pointer
   const void * ( *addressThunk )( const void *, const AttributeRow & );
   void ( *readThunk )( const void *, void *, const AttributeRow & );
   void ( *writeThunk )( void *, const void *, const AttributeRow & );
   const CollectionOps * collection; // of an entity or counted object
   const ValueSetOps * valueSet;     // of a value
   const CounterOps * counter;
   void ( *callThunk )( void *, const GenericValue *, GenericValue *, const AttributeRow & );
   std::span< const ParameterRow > parameters; // of a callable
   const DynamicPart * part;                   // of a type that was declared at run time

   bool has( AttributeFlag flag ) const { return flags & flag; }
   bool isStored() const { return addressThunk; }
   bool isComputed() const { return readThunk; }
   bool isWritable() const { return writeThunk; }
   bool isCallable() const { return callThunk; }

   /// Of the stored value.
   const void * address( const void * object ) const { return addressThunk( object, *this ); }
   /// Constructs the computed value in `result`.
   void read( const void * object, void * result ) const { readThunk( object, result, *this ); }
   /// The typed mutator.
   void write( void * object, const void * value ) const { writeThunk( object, value, *this ); }
   void call( void * object, const GenericValue * arguments, GenericValue * result ) const {
      callThunk( object, arguments, result, *this );
   }
   /// Whether the object stores a value that can be changed.
   bool isMutable() const { return isStored() && ( isWritable() || counter ); }
   /// Brings what isMutable() to a value, through the typed mutators.
   void bring( void * object, const void * value ) const {
      isWritable() ? write( object, value ) : counter->reach( object, value );
   }
};

/// What happens to a state on its way to an object; see StateOps.
class StateTaker {
 public:
   /// What follows the attributes. False: nothing is to be changed.
   virtual bool rest( Wire::Decoder & in ) = 0;
   /// In the catch block of what the attribute's mutator threw.
   virtual void refused( uint16_t attribute ) = 0;

 protected:
   ~StateTaker() = default;
};

/// All plain attributes of a type at once, in the form of a stream's state record: first those of
/// which all values have the same size, then the others. For types whose plain attributes all are
/// values.
struct StateOps {
   void ( *encode )( const void * object, Wire::Buffer & out );
   /// Changes what differs, and nobody is told. False, and nothing was changed, where the bytes
   /// are anything but these attributes and what `taker` takes behind them.
   bool ( *take )( Wire::Decoder & in, void * object, StateTaker & taker );
};

/// Numbers below are the framework's attributes, which all entities have.
constexpr uint16_t firstTypedAttr = 256;

/// Receives the changes of one object by attribute number (see relays).
class IPSTATE_EXPORT AttributeSink {
 public:
   virtual ~AttributeSink();
   /// A plain attribute changed.
   virtual void onAttribute( const AttributeRow & row ) = 0;
   /// A member of a collection was added, changed or removed. `key` is valid during the call.
   virtual void onMember( const AttributeRow & row, const void * key ) = 0;
   /// The relay is made: its head of a flow, which lives as long as it.
   virtual void onRelay( NboAttrLog::FlowHead & head );
   /// Of a relay that is an attribute-log adaptor: the entity is about to lose its parent, or dies.
   virtual void onEntityLeaves();
   /// In the catch block of what one of these threw; what leaves it leaves the mutator.
   virtual void onNotificationException();
};

/// One registered type.
struct TypeDescriptor {
   const char * fullName;
   TypeKind kind;
   bool isRecord;    // one of the library's own registered types (not a framework or value type)
   bool isNamed;     // has a name of its own
   bool hasNotifier; //
   bool hasAttrLog;  //
   const TypeDescriptor * base;
   const ValueOps * values;                    // values, enumerations; null for counted types
   std::span< const AttributeRow > attributes; // own ones, in declaration order
   std::span< const EnumeratorRow > enumerators;
   std::span< const ParameterRow > constructorParameters;
   /// Null for types that are not made. Thunks as in ValueOps.
   Ptr< PtrInterface > ( *createThunk )( const void * const *, const TypeDescriptor & );
   /// Makes a notifiee that forwards every change of `object` to `sink` until destroyed. The
   /// sink must outlive it. Null in a derived type that adds no attributes: its base has one.
   Ptr< PtrInterface > ( *relay )( const PtrInterface & object, AttributeSink & sink );
   AllocTrackTypeInfo * allocations;
   /// Null for all but values.
   void ( *assembleThunk )( void *, const void * const *, const TypeDescriptor & ) = nullptr;
   /// Its companion, which serves requests by attribute number; null for builtins and values
   /// written by hand, which have no attributes.
   const GenericIf * genericIf = nullptr;
   /// Makes the adaptor that streams an entity's changes (framework/attrlog/AttrLog.h). Null for a
   /// type that is not streamed, and in a derived type: its base has one.
   Ptr< PtrInterface > ( *attrLogSa )( Entity & entity, StreamAdapter & adapter,
                                       NboAttrLog::Plan & plan, uint32_t flags ) = nullptr;
   /// Null where one of its plain attributes is a pointer, and in a derived type.
   const StateOps * state = nullptr;
   /// What a declaration says beyond the rows: comments, defaults, bounds. Texts, each closed by a
   /// zero byte, the last one empty; framework/Declaration.h reads them. Null: nothing.
   const char * notes = nullptr;

   mutable const TypeDescriptor * next = nullptr; // registry's
   mutable uint32_t nameHash = 0;                 // registry's

   bool isMade() const { return createThunk; }
   bool isAssembled() const { return assembleThunk; }
   /// Makes an object through the type's factory; one address per constructor parameter.
   Ptr< PtrInterface > create( const void * const * arguments ) const {
      return createThunk( arguments, *this );
   }
   /// Makes a value in `at` from the addresses of its constructor's arguments.
   void assemble( void * at, const void * const * arguments ) const {
      assembleThunk( at, arguments, *this );
   }
   /// The row of an attribute by name or number, here or in a base; null when there is none. The
   /// framework attributes of entities are rows of the base Zek::Entity.
   IPSTATE_EXPORT const AttributeRow * attribute( std::string_view name ) const;
   IPSTATE_EXPORT const AttributeRow * attribute( uint16_t id ) const;
   /// The type that declares the row: this one or a base. Null for a row of another type.
   IPSTATE_EXPORT const TypeDescriptor * ownerOf( const AttributeRow & row ) const;
   IPSTATE_EXPORT bool isA( const TypeDescriptor & other ) const;
   bool isCounted() const { return kind >= TypeKind::entity; }
   bool isEntity() const { return kind == TypeKind::entity || kind == TypeKind::stateMachine; }
};

/// Registers a type; done once per type by the initialiser of the file that defines it.
/// Registering the same name again (a second copy of the library) changes nothing.
IPSTATE_EXPORT void typeNodeIs( const TypeDescriptor & type );
/// The type of that full name, or null.
IPSTATE_EXPORT const TypeDescriptor * typeNode( std::string_view fullName );
/// Calls `visit` for every registered type, in no particular order.
IPSTATE_EXPORT void forEachType( void ( *visit )( const TypeDescriptor &, void * ),
                                 void * context );

// -- From C++ types to descriptors ------------------------------------------------------------

/// TypeOf< T >::descriptor is the descriptor of T. Generated classes carry theirs as
/// zekTypeDescriptor_; builtins, enumerations and types written by hand specialise this.
template< class T >
struct TypeOf {
   static constexpr const TypeDescriptor & descriptor = T::zekTypeDescriptor_;
};

#define ZEK_BUILTIN( T )                                                                           \
   template<>                                                                                      \
   struct IPSTATE_EXPORT TypeOf< T > {                                                             \
      static const TypeDescriptor descriptor;                                                      \
   }
ZEK_BUILTIN( bool );
ZEK_BUILTIN( uint8_t );
ZEK_BUILTIN( uint16_t );
ZEK_BUILTIN( uint32_t );
ZEK_BUILTIN( uint64_t );
ZEK_BUILTIN( int8_t );
ZEK_BUILTIN( int16_t );
ZEK_BUILTIN( int32_t );
ZEK_BUILTIN( int64_t );
ZEK_BUILTIN( double );
ZEK_BUILTIN( String );
ZEK_BUILTIN( Name );
#undef ZEK_BUILTIN

} // namespace Zek
