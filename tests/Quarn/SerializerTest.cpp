#include <vector>

#include <gtest/gtest.h>

#include "Quarn/Serializer.h"

using Quarn::Serializer;

template <class Buffer>
U32 writeRecord(Buffer buffer) {
  Serializer s(buffer);
  s.put<U8>(0xa1);
  s.put<U32>(0x01020304);
  s.put<U16>(0x0506);
  s.put(1.0f);
  s.skip(2);
  s.put<U64>(0x0102030405060708);
  s.put("xyz", 3);
  s.put("", 0);
  return s.length();
}

// Catches padding, alignment, a byte order of the network, a skipped byte that is written
// over, and a measurement that differs from the record.
TEST(Serializer, fieldsArePackedInHostOrder) {
  const std::vector<U8> wanted = {0xa1, 4, 3, 2, 1, 6, 5, 0, 0,   0x80, 0x3f, 0xee, 0xee,
                                  8,    7, 6, 5, 4, 3, 2, 1, 'x', 'y',  'z',  0xee};
  std::vector<U8> bytes(wanted.size(), 0xee);
  EXPECT_EQ(writeRecord(static_cast<void*>(bytes.data())), wanted.size() - 1);
  EXPECT_EQ(bytes, wanted);
  EXPECT_EQ(writeRecord(static_cast<void*>(nullptr)), wanted.size() - 1);
  Serializer s(static_cast<const void*>(bytes.data()));
  s.skip(13);
  EXPECT_EQ(s.get<U64>(), 0x0102030405060708u);
  EXPECT_EQ(s.cursor(), bytes.data() + 21);
}

// Catches a record that is read out of thin air, or written into a table mapped for reading.
TEST(SerializerDeath, wrongBuffers) {
  U8 byte = 0;
  Serializer none(static_cast<const void*>(nullptr)),
      reader(static_cast<const void*>(&byte));
  EXPECT_DEATH(none.get<U8>(), "Quarn/Serializer: get: Assertion \"buffer != nullptr\"");
  EXPECT_DEATH(reader.put<U8>(1), "Quarn/Serializer: put: Assertion \"!isReader\"");
  EXPECT_EQ(none.cursor(), nullptr);
}
