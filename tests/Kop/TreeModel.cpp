#include "TreeModel.h"

#include "Kop/GenericIfImpl.h"

namespace Sample {

namespace {

template <class T>
std::string logged(const T& value) {
  Kop::NboAttrLog::Out out;
  Kop::TypeOpsOf<T>::ops.logWrite(out, &value);
  return bytesText(out);
}
template <class K>
std::string at(const std::string& collection, const K& key) {
  Kop::TextOut text;
  Kop::TypeOpsOf<K>::ops.text(text, &key);
  return collection + "/" + std::string(text.view());
}

}  // namespace

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
  const auto erase = [&](const std::string& path) {  // with all below it
    std::erase_if(model, [&](const auto& entry) {
      return (entry.first + "/").starts_with(path + "/");
    });
  };
  const U32 n = below(12);
  const U16 number = static_cast<U16>(n);
  const bool yes = below(2);
  const Kop::String name("key" + std::to_string(n)),
      branchName("b" + std::to_string(below(3)));
  const Port port(n, U8{1});
  const Place place = placeOf(below(1000));
  const Shape shape = static_cast<Shape>(below(3));
  const std::string branchAt = at("branch", branchName),
                    leafAt = at(branchAt + "/leaf", name);
  const Kop::Ptr<Branch> branch = tree.branch(branchName);
  const Kop::Ptr<Leaf> leaf = branch ? branch->leaf(name) : nullptr;
  const auto newBranch = [&] {
    model[branchAt] = logged(tree.branchIs(branchName)->identity());
    model[branchAt + "/label"] = logged(Kop::String());
  };
  const auto newLeaf = [&](const Kop::Ptr<Branch>& parent) {
    model[leafAt] = logged(parent->leafIs(name)->identity());
    model[leafAt + "/size"] = logged(U32{7});
  };
  switch (below(single ? 20 : 25)) {
    case 0: tree.markIs(n), model[at("mark", n)]; break;
    case 1: tree.markDel(n), erase(at("mark", n)); break;
    case 2: tree.flagIs(name, yes), model[at("flag", name)] = logged(yes); break;
    case 3: tree.flagDel(name), erase(at("flag", name)); break;
    case 4:
    case 5: tree.placeIs(port, place), model[at("place", port)] = logged(place); break;
    case 6: tree.placeDel(port), erase(at("place", port)); break;
    case 7:
    case 8: {
      const Stop stop(name, serial);
      tree.stopIs(stop), model[at("stop", name)] = logged(stop);
      break;
    }
    case 9: tree.stopDel(name), erase(at("stop", name)); break;
    case 10:
      if (!branch) newBranch();
      break;
    case 11:
      if (below(3) == 0) tree.branchDel(branchName), erase(branchAt);
      break;
    case 12:
      if (branch) branch->labelIs(name), model[branchAt + "/label"] = logged(name);
      break;
    case 13:
      if (branch && !leaf) newLeaf(branch);
      break;
    case 14:
      if (leaf) leaf->sizeIs(serial), model[leafAt + "/size"] = logged(serial);
      break;
    case 15:
      if (leaf)
        leaf->spotIs(number, yes), model[at(leafAt + "/spot", number)] = logged(yes);
      break;
    case 16:
      model[at("slot", shape)] = logged(tree.slotIs(shape)->identity());
      model[at("slot", shape) + "/depth"] = logged(U16{1});
      break;
    case 17: tree.slotDel(shape), erase(at("slot", shape)); break;
    case 18: {
      const Level level(static_cast<U16>(3 + n));
      tree.levelIs(level), model["level"] = logged(level);
      break;
    }
    case 19:
      tree.crowdIs(number, crowdOf(serial)),
          model[at("crowd", number)] = logged(crowdOf(serial));
      break;
    // Several changes at once:
    case 20: tree.markDelAll(), erase("mark"); break;
    case 21:
      if (below(4) == 0) tree.branchDelAll(), erase("branch");
      break;
    case 22:
      tree.colourIs(static_cast<Colour>(n)),
          model["colour"] = logged(static_cast<Colour>(n));
      tree.ratioIs(static_cast<float>(n)), model["ratio"] = logged(static_cast<float>(n));
      tree.heightIs(number), model["height"] = logged(number);
      break;
    case 23:  // the key comes back as another entity
      if (!tree.branchDel(branchName)) break;
      erase(branchAt);
      newBranch();
      newLeaf(tree.branch(branchName));
      break;
    default: tree.crowdDelAll(), erase("crowd");
  }
}

}  // namespace Sample
