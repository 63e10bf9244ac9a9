/*
 * ray_packet.cpp - the packet walk built for AVX2: sixteen registers of
 * eight lanes.
 */
#define RAY_PACKET_WALK Ray_Packet_Walk_Avx2
#define RAY_PACKET_SETUP Ray_Packet_Setup_Avx2
#include "cpu/ray_packet_lanes.h"
