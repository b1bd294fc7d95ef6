#include "Quarn/Serializer.h"
#include "tests/Support/Testing.h"

using Quarn::Serializer;

// Catches a field that is padded, and a measurement that differs from the record. Bytes are
// compared where records have a form that others know.
TEST(Serializer, measuresWhatItWrites) {
  U8 bytes[12] = {};
  for (void* const buffer : {static_cast<void*>(bytes), static_cast<void*>(nullptr)}) {
    Serializer s(buffer);
    s.put<U8>(1);
    s.skip(2);
    s.put<U64>(2);
    s.put("", 0);
    EXPECT_EQ(s.length(), 11u);
    EXPECT_EQ(s.cursor(), buffer ? bytes + 11 : nullptr);
  }
  EXPECT_EQ(bytes[3], 2);
}

// Catches a record that is read out of thin air, or written into a table mapped for reading.
TEST(SerializerDeath, wrongBuffers) {
  U8 byte = 0;
  Serializer none(nullptr), reader(static_cast<const void*>(&byte));
  EXPECT_DEATH(none.get<U8>(), "Quarn/Serializer: get: Assertion \"buffer != nullptr\"");
  EXPECT_DEATH(reader.put<U8>(1), "Quarn/Serializer: put: Assertion \"!isReader\"");
}
