#include "Observers.h"

namespace Kop {
namespace {

struct SumNotifiee : Notifiee {
  explicit SumNotifiee(U64& to) : heard(to) {}
  using Notifiee::onAttribute;
  void onAttribute(AttributeId attribute, const void* key) override {
    heard += attribute + *static_cast<const U64*>(key);
  }
  U64& heard;
};
struct SumListener : Listener {
  explicit SumListener(U64& to) : heard(to) {}
  void onAttribute(AttributeId attribute, const void* key) override {
    heard += attribute + *static_cast<const U64*>(key);
  }
  U64& heard;
};

}  // namespace

std::unique_ptr<Notifiee> notifieeOf(U64& heard) {
  return std::make_unique<SumNotifiee>(heard);
}
std::unique_ptr<Listener> listenerOf(U64& heard) {
  return std::make_unique<SumListener>(heard);
}

}  // namespace Kop
