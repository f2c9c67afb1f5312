#include "framework/RbTree.h"

#include "framework/Assert.h"

namespace Zek {

static_assert( sizeof( RbNode ) == 40, "the state stands beside the reference count" );

// -- Walks ------------------------------------------------------------------------------------

RbNode *
RbTree::firstMember() const {
   return root_ ? leftmost( root_ ) : nullptr;
}

RbNode *
RbTree::memberAfter( const void * key, Compare compare ) const {
   RbNode * after = nullptr;
   for( RbNode * node = root_; node; ) {
      bool right = compare( node, key ) <= 0;
      if( !right ) after = node;
      node = node->child_[right];
   }
   return after;
}

// -- Insertion --------------------------------------------------------------------------------

// The child on the other side takes the node's place, the node goes down to that side.
void
RbTree::rotate( RbNode * node, bool right ) {
   RbNode * up = node->child_[!right];
   RbNode * inner = up->child_[right];
   node->child_[!right] = inner;
   if( inner ) inner->parent_ = node;
   transplant( node, up );
   up->child_[right] = node;
   node->parent_ = up;
}

// What stands above `node` stands above `by` instead; `by` may be null.
void
RbTree::transplant( RbNode * node, RbNode * by ) {
   RbNode * parent = node->parent_;
   if( !parent ) {
      root_ = by;
   } else {
      parent->child_[node->isRight()] = by;
   }
   if( by ) by->parent_ = parent;
}

void
RbTree::link( RbNode * parent, bool right, RbNode * node ) {
   assertThat( !( node->state_ & ( RbNode::linkedBit | RbNode::retiredBit ) ),
               "a node belongs to one collection", "RbTree" );
   uint32_t count = root_ ? root_->treeCount() : 0;
   node->parent_ = parent;
   node->state_ = RbNode::linkedBit | RbNode::redBit;
   node->referencesInc();
   if( parent ) {
      parent->child_[right] = node;
   } else {
      root_ = node;
   }
   afterInsert( node );
   root_->treeCountIs( count + 1 );
}

// `node` is red and may have a red parent, which is the only fault of the tree.
void
RbTree::afterInsert( RbNode * node ) {
   while( node->parent_ && node->parent_->isRed() ) {
      RbNode * parent = node->parent_;
      RbNode * above = parent->parent_; // a red node is never the root
      bool right = parent->isRight();
      RbNode * uncle = above->child_[!right];
      if( uncle && uncle->isRed() ) {
         parent->redIs( false );
         uncle->redIs( false );
         above->redIs( true );
         node = above;
         continue;
      }
      if( node->isRight() != right ) {
         rotate( parent, right );
         parent = node;
      }
      parent->redIs( false );
      above->redIs( true );
      rotate( above, !right );
      break;
   }
   root_->redIs( false );
}

// -- Removal ----------------------------------------------------------------------------------

void
RbTree::unlink( RbNode * node ) {
   uint32_t count = root_->treeCount() - 1;
   RbNode * lifted;  // moves into the gap; may be null
   RbNode * above;   // its parent afterwards
   bool blackIsLost; // on the way through `lifted`
   if( node->child_[0] && node->child_[1] ) {
      // The next node leaves its place for this one's.
      RbNode * next = leftmost( node->child_[1] );
      lifted = next->child_[1];
      blackIsLost = !next->isRed();
      if( next->parent_ == node ) {
         above = next;
      } else {
         above = next->parent_;
         transplant( next, lifted );
         next->child_[1] = node->child_[1];
         next->child_[1]->parent_ = next;
      }
      transplant( node, next );
      next->child_[0] = node->child_[0];
      next->child_[0]->parent_ = next;
      next->redIs( node->isRed() );
   } else {
      lifted = node->child_[node->child_[0] == nullptr];
      above = node->parent_;
      blackIsLost = !node->isRed();
      transplant( node, lifted );
   }
   if( blackIsLost ) afterErase( lifted, above );
   if( root_ ) root_->treeCountIs( count );
   node->child_[0] = node->child_[1] = node->parent_ = nullptr;
   node->state_ = RbNode::retiredBit;
}

// Every way through `node`, which may be null, is one black short.
void
RbTree::afterErase( RbNode * node, RbNode * parent ) {
   while( parent && !( node && node->isRed() ) ) {
      bool right = parent->child_[1] == node;
      RbNode * sibling = parent->child_[!right]; // there is one: its side is not short
      if( sibling->isRed() ) {
         sibling->redIs( false );
         parent->redIs( true );
         rotate( parent, right );
         sibling = parent->child_[!right];
      }
      RbNode * outer = sibling->child_[!right];
      RbNode * inner = sibling->child_[right];
      bool outerRed = outer && outer->isRed();
      if( !outerRed && !( inner && inner->isRed() ) ) {
         sibling->redIs( true );
         node = parent;
         parent = node->parent_;
         continue;
      }
      if( !outerRed ) {
         inner->redIs( false );
         sibling->redIs( true );
         rotate( sibling, !right );
         outer = sibling;
         sibling = inner;
      }
      sibling->redIs( parent->isRed() );
      parent->redIs( false );
      outer->redIs( false );
      rotate( parent, right );
      return;
   }
   if( node ) node->redIs( false );
}

void
RbTree::replace( RbNode * old, RbNode * node ) {
   assertThat( !( node->state_ & ( RbNode::linkedBit | RbNode::retiredBit ) ),
               "a node belongs to one collection", "RbTree" );
   node->referencesInc();
   node->state_ = old->state_;
   transplant( old, node );
   for( bool right : { false, true } ) {
      node->child_[right] = std::exchange( old->child_[right], nullptr );
      if( node->child_[right] ) node->child_[right]->parent_ = node;
   }
   old->parent_ = nullptr;
   old->state_ = RbNode::retiredBit;
}

void
RbTree::clear() {
   RbNode * node = std::exchange( root_, nullptr );
   if( !node ) return;
   // First all leave, threaded in order through their left links, which the walk needs no more
   // once it has passed; then the references drop. No iterator follows links of retired nodes.
   RbNode * head = nullptr;
   RbNode ** tail = &head;
   for( node = leftmost( node ); node; node = memberAfter( node ) ) {
      *tail = node;
      tail = &node->child_[0];
      node->state_ = RbNode::retiredBit;
   }
   *tail = nullptr;
   while( head ) {
      node = head;
      head = node->child_[0];
      node->child_[0] = node->child_[1] = node->parent_ = nullptr;
      node->referencesDec();
   }
}

// -- Checks -----------------------------------------------------------------------------------

int
RbTree::checkedHeight( const RbNode * node ) {
   if( !node ) return 1;
   int height[2];
   for( bool right : { false, true } ) {
      const RbNode * child = node->child_[right];
      assertThat( !child || child->parent_ == node, "child->parent_ == node", "RbTree" );
      assertThat( !child || !node->isRed() || !child->isRed(), "no red below red", "RbTree" );
      height[right] = checkedHeight( child );
   }
   assertThat( height[0] == height[1], "equal black heights", "RbTree" );
   return height[0] + !node->isRed();
}

int
RbTree::checkedHeight() const {
   assertThat( !root_ || ( !root_->isRed() && !root_->parent_ ), "a black root", "RbTree" );
   return checkedHeight( root_ );
}

} // namespace Zek
