#include "Kop/GenericIf.h"

#include <new>
#include <utility>

#include "Kop/GenericIfImpl.h"

namespace Kop {

const TypeRecord* TypeOps::record() const {
  return findType(name);
}

namespace {

void* allocateFor(const TypeOps* type) {
  return ::operator new (type->size, std::align_val_t{type->align});
}
void release(const TypeOps* type, void* object) {
  ::operator delete (object, std::align_val_t{type->align});
}

}  // namespace

GenericValue::GenericValue(const TypeOps* type, const void* from)
    : type_(type), object_(allocateFor(type)) {
  try {
    type->construct(object_, from);
  } catch (...) {
    release(type, object_);
    throw;
  }
}
GenericValue::GenericValue(const GenericValue& other) {
  if (other.type_) *this = GenericValue(other.type_, other.object_);
}
GenericValue::GenericValue(GenericValue&& other) noexcept
    : type_(std::exchange(other.type_, nullptr)),
      object_(std::exchange(other.object_, nullptr)) {}
GenericValue& GenericValue::operator=(GenericValue other) noexcept {
  std::swap(type_, other.type_);
  std::swap(object_, other.object_);
  return *this;
}
GenericValue::~GenericValue() {
  if (!type_) return;
  type_->destruct(object_);
  release(type_, object_);
}

String GenericValue::text() const {
  TextOut out;
  type_->text(out, object_);
  return out.string();
}

void GenericValue::textIs(const String& text) {
  GenericValue read(type_);
  TextIt it = text.begin();
  type_->parse(read.get(), it, text.end(), "value");
  needEndOfText(it, text.end());
  *this = std::move(read);
}

bool valueAttributeOp(const TypeOps& ops,
                      std::span<const MemberRecord> members,
                      AttributeOp op,
                      void* a,
                      const void* b,
                      U32 number,
                      void* result) {
  switch (op) {
    case AttributeOp::equal: *static_cast<bool*>(result) = ops.equal(a, b); return true;
    case AttributeOp::less: *static_cast<bool*>(result) = ops.less(a, b); return true;
    case AttributeOp::truth: *static_cast<bool*>(result) = ops.truth(a); return true;
    case AttributeOp::add: return false;
    case AttributeOp::get: break;
  }
  for (const auto& member : members) {
    if (member.number != number) continue;
    if (member.ops->at)
      member.ops->type->assign(result, member.ops->at(a));
    else if (member.ops->arguments.empty() && member.ops->type && !member.ops->changes)
      member.ops->call(a, nullptr, result);
    else
      return false;
    return true;
  }
  return false;
}

void throwCtorArgs(std::string_view type, std::size_t given) {
  throw Exception(stringPrintf("%.*s cannot be made from these %zu constructor arguments",
                               static_cast<int>(type.size()), type.data(), given));
}

}  // namespace Kop
