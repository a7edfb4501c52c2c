#include "korvan/bus/type_description.h"

#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include "test_proto/diamond_top.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptorSet;
using tarvik::korvan::bus::DescribeType;
using tarvik::korvan::bus::TypeDescription;

TEST(TypeDescriptionTest, HoldsTheTypesFileAfterEveryImportOnce) {
  const TypeDescription description = DescribeType(korvan::test::DiamondTop::descriptor());
  EXPECT_EQ(description.type_name, "korvan.test.DiamondTop");
  EXPECT_NE(description.type_hash, 0u);
  FileDescriptorSet set;
  ASSERT_TRUE(set.ParseFromString(description.descriptor_set));
  std::vector<std::string> names;
  for (const auto& file : set.file()) {
    names.push_back(file.name());
    EXPECT_FALSE(file.has_source_code_info());
  }
  ASSERT_EQ(names.size(), 4u);
  EXPECT_EQ(names.front(), "diamond_base.proto");
  EXPECT_EQ(names.back(), "diamond_top.proto");
  // A pool fed file by file in this order accepts every file.
  DescriptorPool pool;
  for (const auto& file : set.file())
    ASSERT_NE(pool.BuildFile(file), nullptr) << file.name();
  EXPECT_NE(pool.FindMessageTypeByName("korvan.test.DiamondTop"), nullptr);
}

// A process that builds the type from the description it fetched must announce the same
// fingerprint, or its samples would look like another type's.
TEST(TypeDescriptionTest, FingerprintSurvivesARoundTripThroughAnotherPool) {
  for (const auto* descriptor :
       {korvan::test::DiamondTop::descriptor(), korvan::test::StampedMessage::descriptor()}) {
    const TypeDescription original = DescribeType(descriptor);
    FileDescriptorSet set;
    ASSERT_TRUE(set.ParseFromString(original.descriptor_set));
    DescriptorPool pool;
    for (const auto& file : set.file())
      ASSERT_NE(pool.BuildFile(file), nullptr);
    const TypeDescription rebuilt =
        DescribeType(pool.FindMessageTypeByName(descriptor->full_name()));
    EXPECT_EQ(rebuilt.type_hash, original.type_hash) << descriptor->full_name();
    EXPECT_EQ(rebuilt.descriptor_set, original.descriptor_set);
  }
}

TEST(TypeDescriptionTest, DifferentTypesDifferAndNullIsEmpty) {
  EXPECT_NE(DescribeType(korvan::test::PlainMessage::descriptor()).type_hash,
            DescribeType(korvan::test::PlainMessageTwin::descriptor()).type_hash);
  EXPECT_EQ(DescribeType(nullptr).type_hash, 0u);
  EXPECT_TRUE(DescribeType(nullptr).descriptor_set.empty());
}

}  // namespace
