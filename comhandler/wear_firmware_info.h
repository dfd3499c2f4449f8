// The version record that the control device returns for the running
// firmware (308 bytes, as the co-processor lays it out).
#pragma once

#include <cstdint>

struct wear_firmware_info_t {
  uint32_t first_word;     // not interpreted
  uint32_t kapi_version;   // major bits 31-24, minor 23-16, patch 15-0
  char apps_version[100];  // application build; holds "NOFLASH_PSRAM" on that variant
  char dsp_version[100];
  char bt_version[100];
};
static_assert(sizeof(wear_firmware_info_t) == 308, "wear_firmware_info_t is 308 bytes on the wire");
