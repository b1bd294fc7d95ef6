#include "TreeModel.h"

namespace Sample {

namespace {

std::string plain(const Kop::String& text) {
  return {text.data(), text.size()};
}
std::string fieldsOf(const Place& place) {
  std::string fields = plain(place.label());
  for (const U64 number :
       {place.port().index(), U64{place.port().chip()}, U64{place.level().value()},
        U64{place.shape()}, U64{place.colour()}, U64{place.up()}, U64{place.width()}})
    fields += ' ' + std::to_string(number);
  return fields + ' ' + std::to_string(place.weight());
}
std::set<std::string> membersOf(const Crowd& crowd) {
  std::set<std::string> members{std::to_string(crowd.shape())};
  for (const auto& node : crowd.member())
    members.insert(plain(node.key()));
  return members;
}

}  // namespace

TreeModel modelOf(const TallTree& tree) {
  TreeModel model;
  for (const auto& node : tree.mark())
    model.marks.insert(node.key());
  for (const auto& node : tree.flag())
    model.flags[plain(node.key())] = node.value;
  for (const auto& node : tree.place())
    model.places[{node.key().index(), node.key().chip()}] = fieldsOf(node.value);
  for (const auto& node : tree.stop())
    model.stops[plain(node.key())] = node.value.zone();
  for (const auto& node : tree.branch()) {
    BranchModel& branch = model.branches[plain(node.key())];
    branch.label = plain(node.value->label());
    for (const auto& below : node.value->leaf()) {
      LeafModel& leaf = branch.leaves[plain(below.key())];
      leaf.size = below.value->size();
      for (const auto& spot : below.value->spot())
        leaf.spots[spot.key()] = spot.value;
    }
  }
  for (const auto& node : tree.slot())
    model.slots[node.key()] = node.value->depth();
  model.colour = tree.colour();
  model.level = tree.level().value();
  model.height = tree.height();
  model.ratio = tree.ratio();
  for (const auto& node : tree.crowd())
    model.crowds[node.key()] = membersOf(node.value);
  return model;
}

Place placeOf(U32 n) {
  return Place(Port(U64{n} << 33 | n, static_cast<U8>(n)), Kop::String(std::to_string(n)),
               Level(static_cast<U16>(3 + n % 800)), static_cast<Shape>(n % 3),
               static_cast<Colour>(n % 5), n % 2 == 0, static_cast<float>(n) / 4,
               static_cast<U16>(n));
}
Crowd crowdOf(U32 n) {
  Crowd crowd;
  crowd.shapeIs(static_cast<Shape>(n % 3));
  for (U32 i = 0; i < n % 5; ++i)
    crowd.memberIs(Kop::String(std::to_string(n + i)));
  return crowd;
}

void randomWrite(
    Random& random, TallTree& tree, TreeModel& model, U32 serial, bool single) {
  const auto below = [&](U32 n) { return static_cast<U32>(random() % n); };
  const U32 n = below(12);
  const std::string key = "key" + std::to_string(n);
  const Kop::String name(key);
  const auto leafOf = [&](std::string& branchKey) -> Kop::Ptr<Leaf> {
    branchKey = "b" + std::to_string(below(3));
    const Kop::Ptr<Branch> branch = tree.branch(Kop::String(branchKey));
    return branch ? branch->leaf(name) : nullptr;
  };
  std::string at;
  switch (below(single ? 20 : 25)) {
    case 0: tree.markIs(n), model.marks.insert(n); break;
    case 1: tree.markDel(n), model.marks.erase(n); break;
    case 2: {
      const bool value = below(2);
      tree.flagIs(name, value), model.flags[key] = value;
      break;
    }
    case 3: tree.flagDel(name), model.flags.erase(key); break;
    case 4:
    case 5: {
      const Place place = placeOf(below(1000));
      tree.placeIs(Port(n, U8{1}), place), model.places[{n, 1}] = fieldsOf(place);
      break;
    }
    case 6: tree.placeDel(Port(n, U8{1})), model.places.erase({n, 1}); break;
    case 7:
    case 8: tree.stopIs(Stop(name, serial)), model.stops[key] = serial; break;
    case 9: tree.stopDel(name), model.stops.erase(key); break;
    case 10: {
      const std::string branch = "b" + std::to_string(below(3));
      tree.branchIs(Kop::String(branch)), model.branches[branch];
      break;
    }
    case 11:
      if (below(3) == 0) tree.branchDel("b0"), model.branches.erase("b0");
      break;
    case 12:
      if (const auto branch = tree.branch("b1"))
        branch->labelIs(name), model.branches["b1"].label = key;
      break;
    case 13:
      at = "b" + std::to_string(below(3));
      if (const auto branch = tree.branch(Kop::String(at)))
        branch->leafIs(name), model.branches[at].leaves[key];
      break;
    case 14:
      if (const auto leaf = leafOf(at))
        leaf->sizeIs(serial), model.branches[at].leaves[key].size = serial;
      break;
    case 15:
      if (const auto leaf = leafOf(at)) {
        const U16 spot = static_cast<U16>(below(4));
        const bool value = below(2);
        leaf->spotIs(spot, value), model.branches[at].leaves[key].spots[spot] = value;
      }
      break;
    case 16: {
      const Shape shape = static_cast<Shape>(below(3));
      tree.slotIs(shape)->depthIs(1), model.slots[shape] = 1;
      break;
    }
    case 17: tree.slotDel(line), model.slots.erase(line); break;
    case 18: tree.levelIs(Level(static_cast<U16>(3 + n))), model.level = 3 + n; break;
    case 19:
      tree.crowdIs(static_cast<U16>(n), crowdOf(serial));
      model.crowds[static_cast<U16>(n)] = membersOf(crowdOf(serial));
      break;
    // Several changes at once:
    case 20: tree.markDelAll(), model.marks.clear(); break;
    case 21:
      if (below(4) == 0) tree.branchDelAll(), model.branches.clear();
      break;
    case 22:
      tree.colourIs(static_cast<Colour>(n)), model.colour = n;
      tree.ratioIs(static_cast<float>(n)), model.ratio = static_cast<float>(n);
      tree.heightIs(static_cast<U16>(serial)), model.height = static_cast<U16>(serial);
      break;
    case 23:  // the key comes back as another entity
      if (tree.branchDel("b2")) {
        tree.branchIs("b2")->leafIs(name);
        model.branches["b2"] = {{}, {{key, {}}}};
      }
      break;
    default: tree.crowdDelAll(), model.crowds.clear();
  }
}

}  // namespace Sample
