// The attribute log: every change of an entity as a record in a stream to another process.
//
// A StreamAdapter is one end of a connection: an Out, an In, and the adaptors of all entities
// that are streamed over it. An adaptor (Entity::ZekNboAttrLogSa) watches one entity through its
// notifiee. A change is written at once while the stream has room; else the attribute, or the key
// of the collection's member, is marked dirty in the entity's FlowOut and written when there is
// room again, with the value it has then. So a stalled reader costs memory for what is dirty,
// never for what happened.
//
//    mutator ─> notifiee ─> adaptor ─┬─ room ──> Out ─> bytes ─> In ─> the copy's mutator
//                                    └─ none ──> FlowOut: dirty ─┘ drain()
//
// Nothing here knows sockets or loops: bytes are taken from Out and given to In by the owner of
// the connection (platform/Kelmo). docs/attribute-log.md describes the bytes.
//
// Threads: one thread owns a tree, its adapters, and everything here.

#pragma once

#include "framework/AnyKey.h"
#include "framework/Entity.h"
#include "framework/EntityUriPath.h"
#include "framework/FlowHead.h"
#include "framework/Relay.h"
#include "framework/Wire.h"
#include "framework/attrlog/AttributeBits.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Zek {

class StreamAdapter;

namespace NboAttrLog {

class Out;
class In;
class FlowOut;
class Demuxer;
class Strangers;

/// Generations of a flow number: which of the entities that have it one after the other is meant.
/// One that is at its last is not given again.
constexpr uint32_t firstGeneration = 0;
constexpr uint32_t lastGeneration = 2147483647;

/// First and last byte of a record's body.
constexpr uint8_t openToken = 0;
constexpr uint8_t closeToken = 2;

/// What a record does.
enum class Kind : uint8_t {
   value,       // an attribute's value, or a member that is present
   removal,     // a member is absent
   instantiate, // a new instance, whatever was under its key
   adopt,       // an instance; one of the same type and constructor arguments is the same
   beginWhole,  // all members of a collection follow
   endWhole,    // what was not mentioned since is absent
   state,       // all plain attributes
};

/// Flow 0 carries what belongs to no entity; the attribute number says what.
enum Control : uint16_t {
   typeControl = 1, // a type's number, name, fingerprint and attributes
   ackControl,      // count of records received, where the peer may write
   againControl,    // a member is wanted again, with all it has
   bindControl,     // the writer's flow for an instance of the peer's flow
   rootControl,     // the root of an export: its flow, type and constructor arguments
   noRootControl,   // nothing stands at the export's path
   beginControl,    // an export's dump begins
   endControl,      // and ends: what it did not mention is absent
   firstUserControl = 64,
};

/// How a record refers to an entity.
enum ReferenceTag : uint8_t {
   nullReference,
   flowReference,        // by the writer's flow
   pathReference,        // by its steps from the root
   outsideReference,     // it stands in no tree
   readersFlowReference, // by the reader's flow, from which the writer has it
};

struct FrameHeader {
   static constexpr size_t size = 20;
   /// From as many bytes; nothing is checked.
   static FrameHeader of( const void * bytes ) {
      auto * at = static_cast< const uint8_t * >( bytes );
      const auto which = Wire::numberAt< uint64_t >( at );
      const auto what = Wire::numberAt< uint64_t >( at + 8 );
      FrameHeader header;
      header.length = static_cast< uint32_t >( which >> 32 );
      header.flow = static_cast< uint32_t >( which );
      header.attribute = static_cast< uint16_t >( what >> 48 );
      header.kind = static_cast< Kind >( what >> 40 & 0xff );
      header.flags = static_cast< uint8_t >( what >> 32 );
      header.check = static_cast< uint32_t >( what );
      header.checksum = Wire::numberAt< uint32_t >( at + 16 );
      return header;
   }
   /// The check of a header: of the record's number in its stream, which is not sent, and of what
   /// stands before the check. So a length that was damaged waits for nothing, and no record is
   /// missed or comes twice.
   static uint32_t checkOf( const uint8_t * header, uint32_t number ) {
      number = Wire::networkOrder( number );
      return Wire::checksum( header, checked, Wire::checksum( &number, sizeof number ) );
   }
   static constexpr size_t checked = 12; // bytes before the check

   uint32_t length;
   uint32_t flow;
   uint16_t attribute;
   Kind kind;
   uint8_t flags;
   uint32_t check;
   uint32_t checksum; // of the body; goes on from the check
};

/// Bounds of what a peer may send; checked for every record in one place.
struct Quota {
   uint32_t recordBytes = 16 << 20;
   uint32_t flows = 1 << 24;
   uint32_t types = 1024;
   uint32_t attributes = 1024;   // of a type
   uint32_t reserved = 1 << 20;  // members that tables are made large enough for beforehand
   uint32_t held = 1 << 20;      // references and instances that wait for their target
   size_t heldBytes = 64 << 20;  // of theirs
   size_t nameBytes = 256 << 20; // of names that are new, each of which is kept for good
   uint32_t depth = 64;          // of directories in directories, the root included
};

/// How the attributes of a type are streamed; made once per type and adapter.
struct IPSTATE_EXPORT Plan {
   explicit Plan( const TypeDescriptor & type );
   /// Whether an instance can be told by its attributes: it can be made, and has all that its
   /// constructor takes.
   static bool covers( const TypeDescriptor & type );

   const TypeDescriptor & type;
   std::vector< const AttributeRow * > plain;       // stored, with a mutator; fixed sizes first
   std::vector< const AttributeRow * > references;  // those of the plain that are pointers
   std::vector< const AttributeRow * > collections; // the children directory last
   std::vector< const AttributeRow * > parameters;  // behind the key: rows that hold them
   std::vector< uint16_t > attrIdsReqSync;          // ascending
   uint64_t fingerprint;
   uint32_t wireType = 0; // its number on the stream, 0 until declared

   /// Row of a synchronised attribute, or null.
   const AttributeRow * row( uint16_t attrId ) const {
      if( attrId == entityAttr ) return children_;
      const size_t index = static_cast< size_t >( attrId ) - firstAttrId_;
      return index < rows_.size() ? rows_[index] : nullptr;
   }
   /// A number of its own for each synchronised attribute, below bits(); for others not below.
   size_t bit( uint16_t attrId ) const {
      return attrId == entityAttr ? rows_.size() : static_cast< size_t >( attrId ) - firstAttrId_;
   }
   size_t bits() const { return rows_.size() + 1; }
   /// How far the attribute's bytes reach in a state record, as ValueOps::wireSize. Of a
   /// collection it has one byte: 1 where it is empty, 0 where it says nothing.
   static uint8_t sizeInState( const AttributeRow & row );
   /// Hash of what both ends must agree on to exchange the attribute.
   static uint32_t signature( const AttributeRow & row );

 private:
   const AttributeRow * children_ = nullptr;
   std::vector< const AttributeRow * > rows_; // from firstAttrId_ on
   size_t firstAttrId_ = 0;
};

/// What is still to be sent of one collection.
struct DirtyCollection {
   const AttributeRow * row;
   /// By key; true when a removal must go before the member that is there now.
   DirtyKeys keys;
   /// All of it is to be sent again, between marks.
   bool whole = false;
   /// Where sending all of it stands: set while it is under way.
   struct ResyncState {
      AnyKey bookmark; // last member sent; empty at the start
      bool hasBookmark() const { return bookmark.get() != nullptr; }
   };
   std::unique_ptr< ResyncState > resync;
};

/// The dirty keys of one collection as its type has them.
template< class Key >
class DirtyKeysOf {
 public:
   explicit DirtyKeysOf( const DirtyKeys * keys ) : keys_( keys ) {}

   size_t size() const { return keys_ ? keys_->size() : 0; }
   bool empty() const { return size() == 0; }
   bool has( const Key & key ) const {
      return keys_ && keys_->find( static_cast< const void * >( &key ) ) != keys_->end();
   }
   /// Calls `visit( const Key & )` in ascending order.
   template< class Visit >
   void forEach( Visit visit ) const {
      if( !keys_ ) return;
      for( auto & [key, removal] : *keys_ ) visit( *static_cast< const Key * >( key.get() ) );
   }

 private:
   const DirtyKeys * keys_;
};

/// A change that a record makes, while it is applied.
struct Handling {
   Entity::ZekNboAttrLogSa * sa; // null once it is detached
   uint16_t attrId;
   const void * key = nullptr;   // of a member
   const void * value = nullptr; // stored form; null for a removal
   bool instance = false;        // an instance comes into being
   bool answered = false;        // something here has changed it since
   Handling * outer = nullptr;   // the one within which it is made
};

/// What one entity still has to send. Exists once the entity was announced.
class IPSTATE_EXPORT FlowOut {
 public:
   FlowOut( Entity::ZekNboAttrLogSa & sa, uint32_t id, uint32_t first, uint32_t last );
   FlowOut( const FlowOut & ) = delete;
   FlowOut & operator=( const FlowOut & ) = delete;
   virtual ~FlowOut();

   uint32_t id() const { return head_.id; }
   /// Which of the entities that have had the number this one is: what the peer says of another is
   /// not taken for this one.
   uint32_t generation() const { return head_.generation; }

   /// Names the attribute that is worked on.
   void attrIdIs( uint16_t attrId ) { head_.attrId = attrId; }
   uint16_t attrId() const { return head_.attrId; }
   bool zekIsDirty( uint16_t attrId ) const { return dirty_.has( plan_.bit( attrId ) ); }
   void zekIsDirtyIs( uint16_t attrId, bool dirty ) {
      dirty_.set( plan_.bit( attrId ), dirty );
      if( dirty ) close();
   }
   /// Whether members of any collection are to be sent.
   bool hasDirtyCollKeys() const;
   bool zekIsKeyDirty( uint16_t attrId, const void * key ) const;
   /// `removal`: the member that was there must go first.
   /// Where dirty removals outgrow the members, all of the collection is marked.
   void zekKeyDirtyIs( const AttributeRow & row, const void * key, bool removal );
   void zekKeyDirtyIs( uint16_t attrId, const void * key, bool dirty );
   void zekKeyDirtyDel( uint16_t attrId, const void * key );
   const DirtyKeys * dirtyKeys( uint16_t attrId ) const;
   /// What is to be sent of a collection, or null.
   const DirtyCollection * dirtyCollection( uint16_t attrId ) const { return collection( attrId ); }
   bool isDirty() const { return dirty_.any() || !collections_.empty(); }

   /// Whether a change of the attribute may go out now, ahead of what is dirty. False while the
   /// collection is being sent as a whole.
   bool prepareImmediateTransmission( uint16_t attrId ) {
      attrIdIs( attrId );
      if( stateDirty_ ) return false;
      const DirtyCollection * c = collections_.empty() ? nullptr : collection( attrId );
      return !c || ( !c->whole && !c->resync );
   }
   /// Marks everything that the adaptor sends.
   void allDirty();
   /// Marks all of one collection.
   void wholeIs( const AttributeRow & row );
   /// Forgets where whole collections stand; they start again.
   void freeResyncState();
   /// Everything is sent again, from the start.
   void resynchronise();
   /// Nothing is to be sent any more.
   void allClean();

 private:
   friend class Out;
   friend class Zek::Entity::ZekNboAttrLogSa;

   /// From now on the adaptor looks at each change.
   void close() { head_.open = nullptr; }
   DirtyCollection * collection( uint16_t attrId ) const;
   DirtyCollection & collectionIs( const AttributeRow & row );
   void collectionDone( DirtyCollection & done );

   Entity::ZekNboAttrLogSa & sa_;
   const Plan & plan_;
   FlowHead & head_;         // in the adaptor's relay
   uint32_t last_;           // generation of the number
   bool stateDirty_ = false; // all plain attributes in one record
   AttributeBits dirty_;     // by plan_.bit()
   std::vector< std::unique_ptr< DirtyCollection > > collections_;
   // The queue of flows with something to send.
   bool queued_ = false;
   FlowOut * previous_ = nullptr;
   FlowOut * next_ = nullptr;
};

} // namespace NboAttrLog

/// The adaptor of one entity and one stream. Its hold on the entity is weak; the adapter holds
/// the adaptor until the entity leaves its parent or dies, or the connection goes.
class IPSTATE_EXPORT Entity::ZekNboAttrLogSa : public PtrInterface, public AttributeSink {
 public:
   using Ptr = Zek::Ptr< ZekNboAttrLogSa >;
   enum Flag : uint32_t {
      sends = 1,       // changes go out
      withContent = 2, // attributes, values and references
      withMembers = 4, // members that it owns
      deep = 8,        // and the members' own, with the same flags
      readOnly = 16,   // a local change is an error
      toOwner = 32,    // the peer owns it: changes go there, and its answer counts
      fromPeer = 64,   // the peer may write it
   };

   /// The notifiee through which it watches; null once detached.
   NotifieeConst * zekReactor() const { return reactor_.ptr(); }
   Entity * entity() const { return entity_; }
   StreamAdapter & adapter() const { return adapter_; }
   /// The outbound flow, or null before the first need of it.
   NboAttrLog::FlowOut * flowOut() const { return flow_.get(); }
   /// Numbers of the attributes that are synchronised: the stored ones with a mutator.
   const std::vector< uint16_t > & attrIdsReqSync() const { return plan_.attrIdsReqSync; }
   const NboAttrLog::Plan & plan() const { return plan_; }
   uint32_t flags() const { return flags_; }
   bool is( Flag flag ) const { return flags_ & flag; }
   void flagsAdd( uint32_t flags );

   /// True while a record of this attribute is being applied to the entity.
   bool handlingFlowInFor( uint16_t attrId ) const {
      const NboAttrLog::Handling * h = handling();
      return h && h->attrId == attrId;
   }
   /// Makes a read-only entity writable where that is possible: where another mount of the same
   /// entity is writable. False when it stays read-only.
   bool convertedToWritable();
   /// The error of a local change of a read-only entity.
   [[noreturn]] void doThrowReadOnly( const char * attribute ) const;

   void hasNotificationActiveIs( bool active );
   void zekDoZombieReactors( bool zombie );
   /// Watches no more, and neither do the adaptors of the members below. The adapter drops it.
   void detach();

   // -- Serialisers of what has been announced. Each returns false when the stream's room was
   // used up meanwhile.
   bool serializeIfDirty( uint16_t attrId );
   bool serializeAttribute( uint16_t attrId );
   bool serializeCollection( uint16_t attrId );
   /// Writes what is dirty.
   bool serializeDirty();
   /// Announces the entity as member of its parent, which must have been announced. `kind`:
   /// instantiate or adopt.
   void zekInstantiateSerialize( NboAttrLog::Kind kind );
   /// Announces the entity without its parent's context, by the type's full name.
   void doSerializeOrphan( uint32_t exportId );

   // -- AttributeSink
   void onAttribute( const AttributeRow & row ) override;
   void onMember( const AttributeRow & row, const void * key ) override;
   void onRelay( NboAttrLog::FlowHead & head ) override;
   void onEntityLeaves() override;
   void onNotificationException() override;

   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static AllocTrackTypeInfo allocTrackTypeInfo_;

   ZekNboAttrLogSa( Entity & entity, StreamAdapter & adapter, NboAttrLog::Plan & plan,
                    uint32_t flags );

 protected:
   ~ZekNboAttrLogSa() override;
   void onZeroReferences() override;
   virtual std::unique_ptr< NboAttrLog::FlowOut > createFlowOut( uint32_t id, uint32_t first,
                                                                 uint32_t last );

 private:
   friend class StreamAdapter;
   friend class Entity;
   friend class NboAttrLog::Out;
   friend class NboAttrLog::In;
   friend class NboAttrLog::FlowOut;
   friend class NboAttrLog::Demuxer;
   friend class NboAttrLog::Strangers;

   /// The change of this entity that a record is just making, or null.
   NboAttrLog::Handling * handling() const;
   bool isAsInLog( const NboAttrLog::Handling & h, const AttributeRow & row,
                   const void * key ) const;
   bool arrivedFromLog( const AttributeRow & row, const void * key );
   bool covers( const AttributeRow & row ) const {
      return is( row.has( ownsMembers ) ? withMembers : withContent );
   }
   bool replacesArrived( const AttributeRow & row, const void * key ) const;
   bool mayGoOut( const AttributeRow & row, const void * key );
   void openIfUsual();
   void markDirty( const AttributeRow & row, const void * key, bool removal = false );
   void allDirtyIs();
   bool serializeAttribute( const AttributeRow & row );
   void encodeInState( const AttributeRow & row, Wire::Encoder & body );
   void serializeState();
   void writeRemoval( const AttributeRow & row, const void * key );
   void sendMember( const AttributeRow & row, const void * key, bool removal );
   ZekNboAttrLogSa * memberAdaptor( const AttributeRow & row, const PtrInterface * member );
   void announceMember( const AttributeRow & row, Entity & member, NboAttrLog::Kind kind,
                        bool state );
   void announceInWhole( const AttributeRow & row, Entity & member );
   NboAttrLog::FlowOut & makeFlow();
   void detachAlone();
   void removalOwed();
   void tellOfReferences( const std::vector< const Entity * > & targets );
   template< class Visit >
   void eachMemberAdaptor( Visit visit );
   void unannounce( bool forget );
   /// What was written to the entity's owner that it is not known to have seen: what it said
   /// before does not count.
   enum class Awaited : uint8_t { nothing, all, member };
   Awaited awaitsOwner( const AttributeRow & row, const void * key );
   bool unackedKeys( const AttributeRow & row, DirtyKeys & keys );
   void wroteToOwner( const AttributeRow & row, const void * key, bool removal = false );
   void rewriteUnacked();
   void boundToOwner( bool again = false );

   Entity * entity_;
   StreamAdapter & adapter_;
   NboAttrLog::Plan & plan_;
   Zek::Ptr< NotifieeConst > reactor_;
   NboAttrLog::FlowHead * head_ = nullptr; // the reactor's
   std::unique_ptr< NboAttrLog::FlowOut > flow_;
   uint32_t flags_;
   uint32_t flowIn_ = 0;
   uint32_t dump_ = 0; // the export in whose dump it has not been sent yet
   bool announced_ = false;
   bool askedAgain_ = false; // the peer wants it announced again, with all it has
   bool hasSweep_ = false;   // members of it are to be removed at the end of a dump
   bool referred_ = false;   // the peer was told of references to it
   // Written to a peer that owns the entity and has not said that it has seen it.
   struct Unacked;
   std::unique_ptr< Unacked > unacked_;
   // The adapter's list: what leads to this one, and the next one.
   ZekNboAttrLogSa ** linkSa_ = nullptr;
   ZekNboAttrLogSa * nextSa_ = nullptr;
};

namespace NboAttrLog {

/// What a stream was told to refer to and does not export: what stood in no tree, or left it since.
/// Building a subtree and attaching it whole is how people publish: once such a one is exported,
/// all that refers to it is told again.
class Strangers {
 public:
   bool empty() const { return met_.empty(); }
   void met( const Entity & entity, const StreamAdapter & adapter );
   /// The entity is exported from now on.
   void exported( const Entity & entity ) {
      if( !met_.empty() && met_.erase( &entity ) ) known_.push_back( &entity );
   }
   bool waits() const { return !known_.empty(); }
   /// Marks what refers to those that are exported by now.
   void markReferences( StreamAdapter & adapter );
   void clear();

 private:
   // Compared, never looked at: they may be gone.
   std::unordered_set< const Entity * > met_;
   std::vector< const Entity * > known_;
   size_t most_ = 64; // of met_, until those to which nothing refers are sorted out
};

/// The outbound stream.
class IPSTATE_EXPORT Out {
 public:
   explicit Out( StreamAdapter & adapter ) : adapter_( adapter ) {}
   Out( const Out & ) = delete;
   Out & operator=( const Out & ) = delete;
   ~Out();

   StreamAdapter & adapter() const { return adapter_; }

   /// Bytes that may wait; a record that begins below it is written whole.
   size_t capacity() const { return capacity_; }
   void capacityIs( size_t bytes ) {
      capacity_ = bytes;
      isHeldIs( false );
   }
   bool hasSufficientBuffer() const { return buffer_.size() < room_; }
   /// No room for a while: what changes is marked dirty.
   void isHeldIs( bool held ) { room_ = held || broken_ ? 0 : capacity_; }
   /// There was no memory for what goes to this peer: its copy is behind for good, and nothing more
   /// is written on this connection, which its owner ends.
   bool isBroken() const { return broken_; }
   /// Runs what wants memory for this peer's sake, where others are not to hear of it.
   template< class Work >
   void orBreakOff( Work work ) {
      try {
         work();
      } catch( const std::bad_alloc & ) {
         breakOff();
      }
   }

   /// What waits to be carried away, and what was carried away.
   const Wire::Buffer & buffer() const { return buffer_; }
   void consume( size_t bytes ) { buffer_.consume( bytes ); }
   /// Writes what is dirty while there is room. True when nothing is dirty any more.
   bool drain();
   /// Nothing waits for room.
   bool isClean() const;
   size_t dirtyFlows() const { return queued_; }
   size_t flows() const { return liveFlows_; }

   /// A notification that is a barrier goes out behind everything dirty; each notification
   /// clears it.
   void barrierIs( bool barrier ) { barrier_ = barrier; }
   void clearBarrier() {
      if( barrier_ ) [[unlikely]] {
         barrier_ = false;
         drain();
      }
   }

   /// A record of flow 0: control() returns the encoder of its body, controlEnd() closes it.
   Wire::Encoder control( uint16_t message );
   void controlEnd();

   uint64_t records() const { return records_; }

 private:
   friend class FlowOut;
   friend class In;
   friend class Demuxer;
   friend class Zek::StreamAdapter;
   friend class Zek::Entity::ZekNboAttrLogSa;
   friend struct FlowHead;

   Wire::Encoder begin( const FlowOut & flow, uint16_t attribute, Kind kind );
   Wire::Encoder begin( const FlowHead & head, uint16_t attribute, Kind kind );
   Wire::Encoder beginFrame( uint32_t flow, uint16_t attribute, Kind kind );
   void end();
   void writeNumber( const FlowHead & flow, uint16_t attribute, uint64_t number, unsigned size );
   void acknowledgeFirst();
   void acknowledge();
   void breakOff();
   void declare( Plan & plan );
   void queue( FlowOut & flow );
   void unqueue( FlowOut & flow );
   void reset();
   void number( FlowOut & flow );
   static void unnumber( FlowOut & flow );
   static void encodeFlow( Wire::Encoder & out, const FlowOut * flow, const Plan & plan );
   void encodeArguments( Wire::Encoder & out, const Entity & entity, const Plan & plan );
   /// Announces what the pointer refers to where this stream exports it.
   void prepareReference( const PtrInterface * target );
   void encodeReference( Wire::Encoder & out, const PtrInterface * target );
   bool announce( const Entity & entity );

   StreamAdapter & adapter_;
   Wire::Buffer buffer_;
   size_t capacity_ = 64 << 10;
   size_t room_ = capacity_;
   size_t frame_ = 0; // offset of the record being written
   bool barrier_ = false;
   bool broken_ = false;
   uint32_t types_ = 0;
   uint64_t records_ = 0;
   std::vector< Entity::ZekNboAttrLogSa * > flows_{ nullptr }; // by number
   /// Numbers of flows that ended, with the generation that comes next.
   struct Free {
      uint32_t id;
      uint32_t generation;
   };
   std::vector< Free > free_;
   size_t liveFlows_ = 0;
   Strangers strangers_;
   FlowOut * queueHead_ = nullptr;
   FlowOut * queueTail_ = nullptr;
   size_t queued_ = 0;
};

/// Assigns flows to entities.
class IPSTATE_EXPORT Demuxer {
 public:
   /// The flow of an entity: `path` says which one. Made anew; the adaptor owns it. It has no
   /// number before it is announced.
   static std::unique_ptr< FlowOut > createFlowOut( Out & out, const EntityUriPath & path,
                                                    Entity::ZekNboAttrLogSa & sa, uint32_t first,
                                                    uint32_t last );
};

} // namespace NboAttrLog
/// Makes the adaptor of a type's own class.
template< class Sa >
Ptr< PtrInterface >
makeAttrLogSa( Entity & entity, StreamAdapter & adapter, NboAttrLog::Plan & plan, uint32_t flags ) {
   return allocate< Sa >( entity, adapter, plan, flags );
}

} // namespace Zek
