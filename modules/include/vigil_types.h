/*
 * Basic types, status values and frame actions shared by the whole module.
 */
#ifndef VIGIL_TYPES_H
#define VIGIL_TYPES_H

#include <cstddef>
#include <cstdint>

#include "zek.h"

/* On every module function that returns a status: a caller that means to
 * ignore one says so with a (void) cast and a word why. */
#define VIGIL_MUST_CHECK [[nodiscard]]

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t i8;
typedef int16_t i16;
typedef int32_t i32;
typedef int64_t i64;

/* What a pipeline decides for one frame. */
#define VIGIL_ACTION_DROP 1u
#define VIGIL_ACTION_FORWARD 2u
#define VIGIL_ACTION_RELOCK 3u

/* Status values this module returns or looks for (the platform's numbers). */
#define VIGIL_STATUS_FAILURE 0x2bad0000u
#define VIGIL_STATUS_BAD_DATA 0xbad0001u
#define VIGIL_STATUS_IGNORED 0xbad0002u
#define VIGIL_STATUS_NOT_FOUND 0xbad0003u
#define VIGIL_STATUS_EXISTS 0xbad0005u
#define VIGIL_STATUS_LIMIT 0xbad0006u
#define VIGIL_STATUS_BAD_PARAM 0xbad0007u
#define VIGIL_STATUS_NO_MEMORY 0xbad0014u
#define VIGIL_STATUS_NOT_SUPPORTED 0xbad0020u
#define VIGIL_STATUS_OVERFLOW 0xbad0026u
#define VIGIL_STATUS_NOT_ENABLED 0xbad0030u
#define VIGIL_STATUS_WAIT_AGAIN 0xbad0032u
#define VIGIL_STATUS_NOT_INITIALIZED 0xbad0039u
#define VIGIL_STATUS_INTERRUPTED 0xbad0069u

#define VIGIL_ETH_ALEN 6
#define VIGIL_ETHERTYPE_IPV4 0x0800u
#define VIGIL_ETHERTYPE_IPV6 0x86ddu
#define VIGIL_ETHERTYPE_ARP 0x0806u

/* Reads of wire fields in network order. */
static inline u16 VigilGetBe16(const void *p) {
   const u8 *b = (const u8 *)p;
   return (u16)((b[0] << 8) | b[1]);
}

static inline u32 VigilGetBe32(const void *p) {
   const u8 *b = (const u8 *)p;
   return ((u32)b[0] << 24) | ((u32)b[1] << 16) | ((u32)b[2] << 8) | b[3];
}

#endif /* VIGIL_TYPES_H */
