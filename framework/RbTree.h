// The untyped core of all ordered collections: a red-black tree linked through its nodes.
//
// The links stand in the node (RbNode), so that adding a member costs one allocation, as in the
// standard map. Three words of links follow the counted object; colour, whether the node is linked,
// and the number of members fill the four bytes that the counted object leaves unused. The number
// is kept in whichever node is the root. So the tree itself is one pointer.
//
// A node belongs to one tree for its whole life: a removed node is never inserted again. That is
// what lets an iterator tell by the node alone whether it is still a member.
//
// The tree holds a reference to each node. Dropping a reference may run any code, also code that
// uses the tree: it happens only after the tree is sound again.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace Zek {

/// Base of the members of ordered collections.
class IPSTATE_EXPORT RbNode : public PtrInterface {
 public:
   /// Whether it is a member of a tree now.
   bool isLinked() const { return state_ & linkedBit; }

 protected:
   RbNode() = default;
   ~RbNode() override = default;

 private:
   friend class RbTree;

   static constexpr uint32_t redBit = 1u << 31;
   static constexpr uint32_t linkedBit = 1u << 30;
   static constexpr uint32_t retiredBit = 1u << 29; // was a member once
   static constexpr uint32_t countMask = retiredBit - 1;

   bool isRed() const { return state_ & redBit; }
   void redIs( bool red ) { state_ = red ? state_ | redBit : state_ & ~redBit; }
   uint32_t treeCount() const { return state_ & countMask; }
   void treeCountIs( uint32_t count ) { state_ = ( state_ & ~countMask ) | count; }
   bool isRight() const { return parent_->child_[1] == this; }

   uint32_t state_ = 0; // flags; in the root also the number of members
   RbNode * child_[2] = { nullptr, nullptr };
   RbNode * parent_ = nullptr;
};

class IPSTATE_EXPORT RbTree {
 public:
   RbTree() = default;
   RbTree( const RbTree & ) = delete;
   RbTree & operator=( const RbTree & ) = delete;
   ~RbTree() {
      if( root_ ) clear();
   }

   size_t count() const { return root_ ? root_->treeCount() : 0; }

   /// The walk of reflection, without iterators: null at the end. The second form takes the sign
   /// of a node's place relative to the key to continue after; the third a member.
   RbNode * firstMember() const;
   using Compare = int ( * )( const PtrInterface * member, const void * key );
   RbNode * memberAfter( const void * key, Compare compare ) const;
   static RbNode * memberAfter( const RbNode * member ); // REQUIRES isLinked()

   RbNode * root() const { return root_; }
   static RbNode * child( const RbNode * node, bool right ) { return node->child_[right]; }

   /// Adds `node` as that child of `parent`, where there is none, or as the root when `parent` is
   /// null and the tree empty. Takes a reference. REQUIRES a node that was never a member.
   void link( RbNode * parent, bool right, RbNode * node );
   /// Removes a member and leaves its reference to the caller.
   void unlink( RbNode * node );
   /// Puts `node` in the place of `old`, takes a reference to it and leaves that of `old` to the
   /// caller. REQUIRES equal keys, a node that was never a member.
   void replace( RbNode * old, RbNode * node );
   /// Empties the tree, then drops the references in order.
   void clear();

   /// Asserts order of colours and links everywhere; for tests. Returns the black height.
   int checkedHeight() const;

 private:
   void rotate( RbNode * node, bool right );
   void afterInsert( RbNode * node );
   void afterErase( RbNode * node, RbNode * parent );
   void transplant( RbNode * node, RbNode * by );
   static int checkedHeight( const RbNode * node );
   static RbNode * leftmost( RbNode * node ) {
      while( node->child_[0] ) node = node->child_[0];
      return node;
   }

   RbNode * root_ = nullptr;
};

inline RbNode *
RbTree::memberAfter( const RbNode * node ) {
   if( node->child_[1] ) return leftmost( node->child_[1] );
   while( node->parent_ && node->isRight() ) node = node->parent_;
   return node->parent_;
}

} // namespace Zek
