#include "Kop/RbTreeMap.h"

namespace Kop {

RbTree::Node* RbTree::first() const {
  Node* node = root_;
  while (node && node->child_[0])
    node = node->child_[0];
  return node;
}

RbTree::Node* RbTree::last() const {
  Node* node = root_;
  while (node && node->child_[1])
    node = node->child_[1];
  return node;
}

RbTree::Node* RbTree::next(const Node* node) {
  if (Node* below = node->child_[1]) {
    while (below->child_[0])
      below = below->child_[0];
    return below;
  }
  Node* above = node->parent_;
  while (above && above->child_[1] == node) {
    node = above;
    above = above->parent_;
  }
  return above;
}

void RbTree::replace(Node* old, Node* by) {
  Node* const parent = old->parent_;
  if (parent)
    parent->child_[parent->child_[1] == old] = by;
  else
    root_ = by;
  if (by) by->parent_ = parent;
}

void RbTree::rotate(Node* node, bool after) {
  Node* const up = node->child_[!after];
  Node* const inner = up->child_[after];
  replace(node, up);
  up->child_[after] = node;
  node->parent_ = up;
  node->child_[!after] = inner;
  if (inner) inner->parent_ = node;
}

void RbTree::link(Node* node, Node* parent, bool after) {
  node->parent_ = parent;
  node->child_[0] = node->child_[1] = nullptr;
  node->red_ = node->linked_ = true;
  if (parent)
    parent->child_[after] = node;
  else
    root_ = node;
  ++count_;
  // Only node and its parent may both be red.
  while (node->parent_ && node->parent_->red_) {
    Node* above = node->parent_;
    Node* const top = above->parent_;  // there is one: a red node is not the root
    const bool side = top->child_[1] == above;
    Node* const uncle = top->child_[!side];
    if (uncle && uncle->red_) {
      above->red_ = uncle->red_ = false;
      top->red_ = true;
      node = top;
      continue;
    }
    if (above->child_[!side] == node) {
      rotate(above, side);
      above = node;
    }
    above->red_ = false;
    top->red_ = true;
    rotate(top, !side);
    break;
  }
  root_->red_ = false;
}

void RbTree::unlink(Node* node) {
  if (node->child_[0] && node->child_[1]) {
    // Its successor, which has no child before it, trades places with it.
    Node* const heir = next(node);
    Node* const heirChild = heir->child_[1];
    Node* const heirParent = heir->parent_;
    std::swap(heir->red_, node->red_);
    replace(node, heir);
    heir->child_[0] = node->child_[0];
    heir->child_[0]->parent_ = heir;
    if (heirParent == node) {
      heir->child_[1] = node;
      node->parent_ = heir;
    } else {
      heir->child_[1] = node->child_[1];
      heir->child_[1]->parent_ = heir;
      heirParent->child_[0] = node;
      node->parent_ = heirParent;
    }
    node->child_[0] = nullptr;
    node->child_[1] = heirChild;
    if (heirChild) heirChild->parent_ = node;
  }
  Node* below = node->child_[node->child_[1] != nullptr];
  Node* above = node->parent_;
  bool side = above && above->child_[1] == node;
  bool lacksBlack = !node->red_;
  replace(node, below);
  node->parent_ = node->child_[0] = node->child_[1] = nullptr;
  node->linked_ = false;
  --count_;
  if (below && below->red_) {
    below->red_ = false;
    lacksBlack = false;
  }
  // Every way through above's child on `side` passes one black node too few.
  while (lacksBlack && above) {
    Node* sibling =
        above->child_[!side];  // there is one: its ways pass a black node more
    if (sibling->red_) {
      sibling->red_ = false;
      above->red_ = true;
      rotate(above, side);
      sibling = above->child_[!side];
    }
    Node* inner = sibling->child_[side];
    Node* outer = sibling->child_[!side];
    if (!(inner && inner->red_) && !(outer && outer->red_)) {
      sibling->red_ = true;
      lacksBlack = !above->red_;
      above->red_ = false;
      below = above;
      above = below->parent_;
      side = above && above->child_[1] == below;
      continue;
    }
    if (!(outer && outer->red_)) {
      inner->red_ = false;
      sibling->red_ = true;
      rotate(sibling, !side);
      outer = sibling;
      sibling = inner;
    }
    sibling->red_ = above->red_;
    above->red_ = outer->red_ = false;
    rotate(above, side);
    break;
  }
}

// `rest` is left at the parent of what was taken, so that the next call need not come down
// from the root again.
RbTree::Node* RbTree::dismantle(Node*& rest) {
  Node* node = rest;
  if (!node) return nullptr;
  while (node->child_[0] || node->child_[1])
    node = node->child_[node->child_[0] == nullptr];
  rest = node->parent_;
  if (rest) rest->child_[rest->child_[1] == node] = nullptr;
  node->parent_ = nullptr;
  node->linked_ = false;
  return node;
}

U32 RbTree::verifyBelow(const Node* node, U32& count) {
  if (!node) return 1;
  ++count;
  for (const Node* child : node->child_) {
    if (!child) continue;
    KOP_ASSERT(child->parent_ == node, "child->parent_ == node", "RbTreeMap");
    KOP_ASSERT(!(node->red_ && child->red_), "!(node->red_ && child->red_)", "RbTreeMap");
  }
  const U32 before = verifyBelow(node->child_[0], count);
  const U32 after = verifyBelow(node->child_[1], count);
  KOP_ASSERT(before == after, "black heights are equal", "RbTreeMap");
  return before + !node->red_;
}

void RbTree::verifyBalance() const {
  U32 count = 0;
  KOP_ASSERT(!root_ || (!root_->parent_ && !root_->red_), "the root is black",
             "RbTreeMap");
  verifyBelow(root_, count);
  KOP_ASSERT(count == count_, "count == count_", "RbTreeMap");
}

}  // namespace Kop
