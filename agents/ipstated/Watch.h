// A line for every notification below a record, however deep.
//
// The watch knows no record type: it follows the type descriptors. It attaches to the record that
// it is given and to everything that is owned below, keeps what it has seen as text, and writes a
// line for each attribute and each member announced:
//
//    activeAddrWithMask  cell/1/ip/input/status-1/ipIntfStatus[eth0]  0.0.0.0/0 -> 10.0.0.1/24
//
// that is: what, where, old and new value. What was not there before, or is not any more, stands
// as "-"; a member that has no value of its own (of a set, a record) stands as "+". An
// announcement that changed nothing is written with twice the same value.

#pragma once

#include "agents/ipstated/Change.h"

#include "framework/Entity.h"
#include "framework/Type.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace Ipstated {

class Watch : private Zek::AttributeSink {
 public:
   /// Watches `record` until destroyed; `sink` gets each line. The record must
   /// be of a type that can be watched; below it, what cannot is passed over.
   Watch( const Zek::Entity & record, ChangeSink sink );
   ~Watch() override;
   Watch( const Watch & ) = delete;
   Watch & operator=( const Watch & ) = delete;

 private:
   /// What is known of one member of a collection.
   struct Member {
      std::string text;
      const Zek::PtrInterface * object = nullptr; ///< compared only
      std::unique_ptr< Watch > watch;             ///< of an owned record
   };

   Watch( const Zek::Entity & record, std::shared_ptr< ChangeSink > sink );
   void attach();
   void onAttribute( const Zek::AttributeRow & row ) override;
   void onMember( const Zek::AttributeRow & row, const void * key ) override;
   std::string textOf( const Zek::AttributeRow & row ) const;
   Member memberOf( const Zek::AttributeRow & row, const Zek::PtrInterface & member );
   void tell( const std::string & what, const std::string & before, const std::string & now );

   const Zek::Entity & record_;
   std::shared_ptr< ChangeSink > sink_;
   std::string path_;
   std::unordered_map< uint16_t, std::string > values_;
   std::unordered_map< std::string, Member > members_; ///< by attribute[key]
   Zek::Ptr< Zek::PtrInterface > relay_;
};

} // namespace Ipstated
