// One end of a connection between two processes' trees, and its inbound half.
//
// Records come in through In: each is checked as a whole before anything is changed, then applied
// through the mutators that everybody uses, so that checks and notifications run as for a local
// change. A record that a mutator refuses is skipped and counted. A malformed one throws a
// StreamException, which names path, attribute and offset; the connection is over then, and the
// tree is as the record before left it.

#pragma once

#include "framework/Exception.h"
#include "framework/attrlog/AttrLog.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Zek {

/// Bytes from a peer that are no stream of records.
class IPSTATE_EXPORT StreamException : public Exception {
 public:
   using Exception::Exception;
   ~StreamException() override;
};

/// What the owner of a connection decides.
class IPSTATE_EXPORT StreamOwner {
 public:
   virtual ~StreamOwner();
   /// A control record of the owner's own (firstUserControl and above).
   virtual void onControl( uint16_t message, Wire::Decoder & body ) = 0;
   /// Whether the peer may send the root of this export under this name, or take it away (null);
   /// `*flags` of its adaptor.
   virtual bool acceptsRoot( uint32_t exportId, const TypeDescriptor * type, std::string_view name,
                             uint32_t * flags ) = 0;
   /// The directory in which the root of an accepted export stands, made if need be.
   virtual Entity::Ptr rootDirectory( uint32_t exportId ) = 0;
   /// The export's entity came, or went (null).
   virtual void onRoot( uint32_t exportId, Entity * root ) = 0;
   /// The dump of an export begins or has been applied as a whole.
   virtual void onDump( uint32_t exportId, bool complete ) = 0;
   /// An exported entity of ours left its place.
   virtual void onExportGone( uint32_t exportId ) = 0;
};

namespace NboAttrLog {

/// What a peer has to say on a connection, for which it is held to that: nothing else makes
/// anything here.
enum class Says : uint8_t {
   greeting, // the owner's first message, before all else
   requests, // messages of the owner's, acknowledgements, and what it wants again
   state,    // what it exports, or writes
};

class IPSTATE_EXPORT In {
 public:
   explicit In( StreamAdapter & adapter );
   In( const In & ) = delete;
   In & operator=( const In & ) = delete;
   ~In();

   /// Takes bytes and applies every record that is complete. Throws StreamException, also without
   /// memory; nothing more is taken then.
   void receive( const void * bytes, size_t count );
   /// The same without a copy: where up to `bytes` may be put, and then that so many were.
   uint8_t * room( size_t bytes ) { return incoming().room( bytes ); }
   void arrived( size_t count );

   uint64_t records() const { return records_; }
   /// Records that a mutator refused, and the text of the last refusal.
   uint64_t refused() const { return refused_; }
   const std::string & lastRefusal() const { return lastRefusal_; }
   /// References and instances that wait for what they refer to.
   size_t held() const { return held_.size(); }
   size_t flows() const { return flows_.size(); }
   bool dumpInProgress() const { return openDumps_ != 0; }

   Quota quota;

 private:
   friend class Out;
   friend struct FlowHead;
   friend class Zek::StreamAdapter;
   friend class Zek::Entity::ZekNboAttrLogSa;

   static constexpr uint32_t greetingBytes = 64 << 10; // of a record before the peer is known

   struct WireType {
      const TypeDescriptor * type = nullptr; // null: unknown here
      bool same = false;                     // both ends agree on all attributes and their order
      std::vector< uint16_t > agreed;        // else: on these, ascending
      /// What stands in a state record, in this order.
      struct InState {
         const AttributeRow * row; // null: not agreed on
         uint8_t size;             // as Plan::sizeInState()
      };
      std::vector< InState > state;
      bool isAsIn( const Plan & plan ) const;
      /// Rows of the plain attributes agreed on that hold values, from number `firstValue` on.
      std::vector< const AttributeRow * > values;
      uint16_t firstValue = 0;

      const AttributeRow * value( uint16_t attribute ) const {
         const size_t index = static_cast< size_t >( attribute ) - firstValue;
         return index < values.size() ? values[index] : nullptr;
      }
   };
   struct Flow {
      Entity::ZekNboAttrLogSa * sa = nullptr; // null: known, but nothing here follows it
      const WireType * type = nullptr;        // null: never instantiated
      // Of the adaptor: its entity and notifiee, where the peer's word counts in any case; else
      // null.
      Entity * entity = nullptr;
      const PtrInterface::NotifieeConst * notifiee = nullptr;
      uint32_t generation = firstGeneration;
      bool asked = false; // for the instance again

      void saIs( Entity::ZekNboAttrLogSa * sa );
   };
   /// A flow whose instance is not there yet; number 0: none, a path is waited for.
   struct Awaited {
      uint32_t id = 0;
      uint32_t generation = 0;
   };
   /// By flow, attribute and the encoded key of a member: the newest record that waits.
   using HeldPlace = std::tuple< uint32_t, uint16_t, std::string >;
   struct Held {
      Kind kind;
      Awaited awaited;
      uint32_t generation; // of the flow that an instance names
      std::vector< uint8_t > body;
   };
   struct Whole {
      Entity::ZekNboAttrLogSa::Ptr sa;
      const AttributeRow * row;
      DirtyKeys mentioned;
   };
   struct Sweep {
      Entity::ZekNboAttrLogSa::Ptr sa;
      const AttributeRow * row;
      DirtyKeys keys;
   };
   /// An attribute of a whole state.
   struct Item {
      const AttributeRow * row;
      const void * value; // null: to be held
      const uint8_t * bytes;
      uint32_t size;
      Awaited awaited = {};
      bool isProvisional = false;
   };
   /// A flow as an instance names it.
   struct FlowName {
      uint32_t id;
      uint32_t generation;
   };
   struct Over;
   class Handles;
   class Scratch;
   class Taker;

   void applyAll();
   void takeLate();
   /// Where in buffer_ the frame begins whose entity is fetched into the cache.
   void fetchAhead( size_t & ahead ) const;
   bool applyUnheard( const FrameHeader & header, Wire::Decoder body );
   bool takeValue( const Flow & flow, const AttributeRow & row, Wire::Decoder & body );
   bool takeState( const Flow & flow, Wire::Decoder & body );
   void record( const FrameHeader & header, Wire::Decoder & body );
   void checkRole( const FrameHeader & header );
   void control( uint16_t message, Wire::Decoder & body );
   void typeDeclared( Wire::Decoder & body );
   void rootCame( Wire::Decoder & body );
   void rootWent( Wire::Decoder & body );
   void entityRecord( Flow & flow, const FrameHeader & header, Wire::Decoder & body );
   bool takes( const Entity::ZekNboAttrLogSa * sa );
   void instanceRecord( const FrameHeader & header, Wire::Decoder & body );
   static const AttributeRow * agreedRow( Entity::ZekNboAttrLogSa & sa, const WireType & type,
                                          uint16_t attribute );
   void applyState( Entity::ZekNboAttrLogSa & sa, const WireType & type, Wire::Decoder & body );
   bool applyValue( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, Wire::Decoder & body );
   bool applyMember( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, Kind kind,
                     Wire::Decoder & body, std::string_view & keyBytes );
   bool applyInstance( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, Kind kind,
                       FlowName flow, const WireType & wire, Wire::Decoder & body,
                       std::string_view & keyBytes );
   /// The further constructor arguments; false when one refers to what is not there yet, for which
   /// null stands.
   bool readArguments( const Plan & plan, Wire::Decoder & body, Scratch & scratch,
                       std::vector< const void * > & arguments );
   bool retryInstance( Entity::ZekNboAttrLogSa & sa, const HeldPlace & place, const Held & held );
   bool isSame( const Entity & entity, const Plan & plan,
                const std::vector< const void * > & arguments ) const;
   bool isAnswered( const Entity * member, const Plan & plan,
                    const std::vector< const void * > & arguments ) const;
   bool isTooDeep( const Entity & directory ) const;
   /// `outside`: the peer's stands in no tree, so that none here corresponds to it.
   enum class Reference { null, found, absent, outside };
   Reference readReference( Wire::Decoder & body, const TypeDescriptor & type, Entity *& target );
   bool isOutside( const AttributeRow & row, const Entity & entity ) const;
   Entity::ZekNboAttrLogSa * ownFlow( Wire::Decoder & body );
   const WireType * wireType( Wire::Decoder & body );
   bool flowName( Wire::Decoder & body, FlowName & name );
   void flowIs( FlowName name, const WireType & type );
   /// Whether the instance was announced before.
   bool isKnown( FlowName name, const WireType & type ) const;
   /// Whether the flow is bound already; else it is taken into use.
   bool repeats( FlowName name, const WireType & type );
   void bind( uint32_t id, Entity::ZekNboAttrLogSa & sa );
   void unbind( Entity::ZekNboAttrLogSa & sa );
   /// The adaptor's flags have changed.
   void flagsChanged( Entity::ZekNboAttrLogSa & sa );
   void bindToPeer( Wire::Decoder & body );
   void beginWhole( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, uint32_t members );
   void endWhole( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row );
   void mention( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void sweepAll();
   void remove( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   bool settledWithout( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void overtaken( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void settle( const FrameHeader & header, std::string_view key, bool complete,
                const uint8_t * body, size_t size );
   void hold( const FrameHeader & header, std::string_view key, Awaited awaited,
              const uint8_t * body, size_t size );
   void dropHeld( uint32_t flow, uint16_t attribute, std::string_view key );
   void dropHeld( uint32_t flow, uint16_t first, uint16_t last );
   void retryHeld();
   /// Whether what arrived counts; else it is asked for when the owner has seen what this end
   /// wrote.
   bool passesFence( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void passedOver( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void askForPassedOver();
   bool isFenced( const HeldPlace & place );
   void again( uint32_t parent, uint16_t attribute, std::string_view key, uint32_t flow );
   void askAgain();
   void sendAgain( Wire::Decoder & body );
   /// Tells the peer, where it may write, how much has been read.
   void acknowledge();
   bool owesAcknowledgement() const { return acknowledged_ != records_; }
   bool mayApply( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   bool answersLater( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key,
                      bool both );
   void refusedIs( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void answer( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key );
   void reset();
   [[noreturn]] void malformed( const FrameHeader & header, const char * expected, size_t offset );
   template< class Work >
   void callOut( Work work );
   template< class Change >
   bool guarded( Change change );
   template< class Change >
   bool attempted( Change change );
   template< class Change >
   bool change( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key,
                const void * value, bool instance, Change change );

   /// While a record is applied, bytes can come from a callback of a mutator only: the loop that
   /// called it goes on with them.
   Wire::Buffer & incoming() { return receiving_ ? late_ : buffer_; }

   StreamAdapter & adapter_;
   Wire::Buffer buffer_;
   Wire::Buffer late_;  // came while a record was applied
   size_t applied_ = 0; // bytes of buffer_, while it is receiving
   bool receiving_ = false;
   bool closed_ = false;
   size_t bound_ = 0;              // flows, since what waits was tried last
   Handling * handling_ = nullptr; // the innermost
   bool answered_ = false;         // the last change was changed again by a reaction to it
   uint64_t records_ = 0;
   uint64_t refused_ = 0;
   uint64_t acked_ = 0;        // records of ours that the peer says it has received
   uint64_t acknowledged_ = 0; // records of the peer that we said so of
   std::string lastRefusal_;
   std::deque< WireType > types_;
   std::vector< Flow > flows_;
   std::map< HeldPlace, Held > held_;
   Awaited awaited_; // by the last reference that was absent
   /// The last record refers by path to what is left from an earlier connection: another may come
   /// in its place. So it counts, and waits too.
   bool isProvisional_ = false;
   size_t heldBytes_ = 0;
   std::set< HeldPlace > wanted_; // to be asked for again when there is room
   size_t wantedBytes_ = 0;       // of their keys
   /// What arrived while this end had written it, each once; and with the count of records that the
   /// owner is to have seen before it is asked for, in that order.
   std::set< HeldPlace > passedOver_;
   std::deque< std::pair< uint64_t, std::set< HeldPlace >::iterator > > fences_;
   size_t nameBytes_ = 0;           // of names that are new since the connection was made
   std::vector< Item > stateItems_; // for the length of one record
   std::vector< Whole > wholes_;
   std::vector< Sweep > sweeps_;
   std::map< uint32_t, uint32_t > roots_; // flow of each export's root
   uint32_t openDumps_ = 0;
   uint32_t reserved_ = 0; // members that room was made for, as the peer announced them
};

} // namespace NboAttrLog

class IPSTATE_EXPORT StreamAdapter {
 public:
   /// A connection of the tree at `root`, which lives as long as the adapter.
   StreamAdapter( const Entity::Ptr & root, StreamOwner & owner );
   StreamAdapter( const StreamAdapter & ) = delete;
   StreamAdapter & operator=( const StreamAdapter & ) = delete;
   ~StreamAdapter();

   NboAttrLog::Out & nboAttrLogOut() { return out_; }
   const NboAttrLog::Out & nboAttrLogOut() const { return out_; }
   NboAttrLog::In & nboAttrLogIn() { return in_; }
   const NboAttrLog::In & nboAttrLogIn() const { return in_; }
   Entity & root() const { return *root_; }
   StreamOwner & owner() const { return owner_; }

   /// The adaptor of the entity on this connection, or null.
   static Entity::ZekNboAttrLogSa * adaptorOf( const Entity & entity,
                                               const StreamAdapter & adapter );
   Entity::ZekNboAttrLogSa * adaptorOf( const Entity & entity ) const {
      return adaptorOf( entity, *this );
   }
   /// The same, made if there is none; null for a type without attribute log.
   Entity::ZekNboAttrLogSa * adaptorIs( Entity & entity, uint32_t flags );

   /// Announces the entity, as soon as there is room, and sends it with what `flags` say; then
   /// each of its changes.
   void exportIs( uint32_t exportId, Entity & entity, uint32_t flags );
   /// Says that nothing stands where the export is wanted.
   void exportAbsent( uint32_t exportId );
   /// Puts a child into a directory, or removes one, where the directory may be the peer's and
   /// read-only here. What notifiees throw is counted and traced.
   void childIs( Entity & directory, const Entity::Ptr & child );
   void childDel( Entity & directory, const Name & name );
   /// Whether the peer may write to what is exported.
   bool peerWrites() const { return peerWrites_; }
   void peerWritesIs( bool writes ) { peerWrites_ = writes; }
   /// What the peer may send from now on: any state at first.
   void peerSaysIs( NboAttrLog::Says says ) { says_ = says; }

   /// The connection is lost: flows, numbers and bytes are forgotten. The adaptors of what came
   /// from the peer stay, and keep it from local writes; what was exported is let go.
   void reset();
   /// The connection is over for good, and so is whoever owns it: nothing is told any more. For who
   /// goes while bytes are being applied, until which the adapter must live on.
   void end();
   /// Of the connections that reset() ends, which one it is.
   uint64_t connection() const { return connection_; }
   bool isOver() const { return isOver_; }
   size_t adaptors() const { return adaptors_; }
   /// Bytes that this end of the connection holds for what is to be sent.
   size_t dirtyFlows() const { return out_.dirtyFlows(); }

 private:
   friend class NboAttrLog::Out;
   friend class NboAttrLog::In;
   friend class NboAttrLog::Strangers;
   friend struct NboAttrLog::FlowHead;
   friend class Entity::ZekNboAttrLogSa;

   NboAttrLog::Plan & plan( const TypeDescriptor & type );
   static void link( Entity::ZekNboAttrLogSa *& first, Entity::ZekNboAttrLogSa & sa );
   static void unlink( Entity::ZekNboAttrLogSa & sa );
   void join( Entity::ZekNboAttrLogSa & sa );
   void leave( Entity::ZekNboAttrLogSa & sa );
   void joinDump( Entity::ZekNboAttrLogSa & sa, uint32_t exportId );
   void flowDone( Entity::ZekNboAttrLogSa & sa );
   void endDumps();

   struct Export {
      uint32_t id;
      Entity::ZekNboAttrLogSa * root = nullptr; // null: absent
      uint32_t pending = 0;                     // flows of the dump that were not sent yet
      enum class Dump : uint8_t { none, begun, ended } dump = Dump::none;
      // What waits to be said when there is room: however often the root changed meanwhile.
      bool rootWaits = false;
      bool absenceWaits = false; // before it
      bool goneUntold = false;   // to the connection's owner
   };
   Export * exported( uint32_t exportId );
   Export & exportFor( uint32_t exportId );
   void exportAgain( Entity::ZekNboAttrLogSa & sa );
   bool exportsWait() const;
   bool writeExports();
   void beginDump( Export & e );
   void writeRoot( Export & e );

   Entity::Ptr root_;
   StreamOwner & owner_;
   NboAttrLog::Out out_;
   NboAttrLog::In in_;
   std::unordered_map< const TypeDescriptor *, std::unique_ptr< NboAttrLog::Plan > > plans_;
   NboAttrLog::Plan * lastPlan_ = nullptr;
   Entity::ZekNboAttrLogSa * first_ = nullptr;
   size_t adaptors_ = 0;
   bool peerWrites_ = false;
   NboAttrLog::Says says_ = NboAttrLog::Says::state;
   bool isOver_ = false;
   uint64_t connection_ = 0;
   std::vector< Export > exports_;
};

} // namespace Zek
