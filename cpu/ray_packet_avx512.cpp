/*
 * ray_packet_avx512.cpp - the same packet walk built for AVX-512 (F, VL,
 * BW, DQ): sixteen lanes to a 512-bit register, so that each operation
 * does the work of two of the AVX2 build's, and the lane masks in mask
 * registers.
 */
#define RAY_PACKET_WALK Ray_Packet_Walk_Avx512
#define RAY_PACKET_SETUP Ray_Packet_Setup_Avx512
#include "cpu/ray_packet_lanes.h"
