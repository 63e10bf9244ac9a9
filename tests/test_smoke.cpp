#include <gtest/gtest.h>
#include <voxelune/voxelune.h>
TEST(Smoke, Version) { EXPECT_NE(Get_Version_Ray(nullptr), nullptr); }
