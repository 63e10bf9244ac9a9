/*
 * ray_packet_avx512.cpp - the same packet walk built for AVX-512 (VL, BW,
 * DQ): still eight lanes, with thirty-two registers, so that the rays'
 * state stays in registers, and mask registers for the lane tests.
 */
#define RAY_PACKET_WALK Ray_Packet_Walk_Avx512
#define RAY_PACKET_SETUP Ray_Packet_Setup_Avx512
#include "cpu/ray_packet_lanes.h"
