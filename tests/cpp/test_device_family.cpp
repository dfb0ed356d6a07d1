#include <gtest/gtest.h>

#include "common/device_family.h"

using vorta::classify_device;
using vorta::DeviceFamily;

TEST(DeviceFamily, NamesWinInTestOrder) {
  // The server names and the longer "Kestrel(TM) K" come before "Kestrel(TM)".
  EXPECT_EQ(classify_device("Condor Server GPU with Kestrel(TM) K", 8, 0), DeviceFamily::CONDOR);
  EXPECT_EQ(classify_device("Kestrel(TM) K770 Graphics", 8, 0), DeviceFamily::KESTREL);
  EXPECT_EQ(classify_device("Harrier Server GPU Kestrel(TM)", 8, 0), DeviceFamily::KESTREL);
  EXPECT_EQ(classify_device("Kestrel(TM) Graphics", 8, 0), DeviceFamily::WREN);
  EXPECT_EQ(classify_device("Kestrel(TM) Graphics", 16, 0), DeviceFamily::FINCH);
  EXPECT_EQ(classify_device("Kestrel(TM) Graphics", 32, 0), DeviceFamily::FINCH);
  EXPECT_EQ(classify_device("Glim Graphics", 8, 0), DeviceFamily::LEGACY);
  EXPECT_EQ(classify_device("Wisp Glim", 8, 0), DeviceFamily::LEGACY);
}

TEST(DeviceFamily, SimdWidthOnlyMattersForKestrelNames) {
  EXPECT_EQ(classify_device("Kestrel(TM) K", 16, 0), DeviceFamily::KESTREL);
  EXPECT_EQ(classify_device("Kestrel(TM) K", 8, 0), DeviceFamily::KESTREL);
}

TEST(DeviceFamily, NamesBeatIds) {
  EXPECT_EQ(classify_device("Wisp", 8, vorta::kLarkDeviceId), DeviceFamily::LEGACY);
  EXPECT_EQ(classify_device("Kestrel(TM)", 16, vorta::kWrenDeviceIds[0]), DeviceFamily::FINCH);
}

TEST(DeviceFamily, IdsOfUnnamedDevices) {
  EXPECT_EQ(classify_device("GPU", 8, vorta::kLarkDeviceId), DeviceFamily::LARK);
  EXPECT_EQ(classify_device("GPU", 8, vorta::kLarkDeviceId | 0x80u), DeviceFamily::LARK);
  EXPECT_EQ(classify_device("GPU", 8, vorta::kLarkDeviceId ^ 0x1u), DeviceFamily::OTHER);
  for (uint32_t id : vorta::kWrenDeviceIds) {
    EXPECT_EQ(classify_device("GPU", 8, id), DeviceFamily::WREN);
    EXPECT_NE(id & ~0x80u, vorta::kLarkDeviceId);
  }
  EXPECT_EQ(classify_device("NVIDIA H100 80GB HBM3", 32, 0x2330), DeviceFamily::OTHER);
  EXPECT_EQ(classify_device("", 0, 0), DeviceFamily::OTHER);
}

TEST(DeviceFamily, MatrixEngineFamilies) {
  using F = DeviceFamily;
  for (F f : {F::KESTREL, F::FINCH, F::OSPREY, F::LARK}) EXPECT_TRUE(vorta::has_matrix_engine(f));
  for (F f : {F::CONDOR, F::WREN, F::LEGACY, F::OTHER}) EXPECT_FALSE(vorta::has_matrix_engine(f));
}
