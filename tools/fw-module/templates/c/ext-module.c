/* The update module @NAME@: what the update library calls. "EXT-" in its name makes it
 * run a procedure of its own: it gets no image from the library, but finds one in the
 * firmware directory itself and decides itself. Every entry point answers 0 or a
 * negative errno value, which errno holds as well: the library logs both. */
#define _GNU_SOURCE
#include <errno.h>
#include <fw-update-module.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "component.h"
#include "reason.h"

#define IMAGE "/lib/firmware/ext/@FIRMWARE@/@FIRMWARE@.bin"
#define INFORMATION "/lib/firmware/ext/@FIRMWARE@/info.json"

static int answer(int result) {
  if (result != 0)
    errno = -result;
  return result;
}

static int is_version(const char* text) {
  const size_t length = strspn(text, "0123456789.");
  return length > 0 && length < TEXT_SIZE && text[length] == '\0' && text[0] != '.';
}

static int compare_with_active(const char* version, int* need) {
  char active[TEXT_SIZE];
  if (!is_version(version))
    return -EINVAL;
  const int result = component_read_version(active);
  if (result == 0)
    *need = strverscmp(version, active) > 0;
  return result;
}

/* The value of one member of info.json, without quotes; empty when it is not there. */
static void read_member(const char* json, const char* quoted_name, char value[TEXT_SIZE]) {
  value[0] = '\0';
  const char* text = strstr(json, quoted_name);
  if (text == NULL)
    return;
  text += strlen(quoted_name);
  text += strspn(text, ": \t\n\"");
  const size_t length = strcspn(text, " \t\n\",}");
  if (length >= TEXT_SIZE)
    return;
  memcpy(value, text, length);
  value[length] = '\0';
}

static int run_own_procedure(void) {
  FILE* file = fopen(INFORMATION, "re"); /* close-on-exec: not the module's process */
  if (file == NULL)
    return failed(INFORMATION, errno);
  char json[4096];
  json[fread(json, 1, sizeof json - 1, file)] = '\0';
  fclose(file);
  char version[TEXT_SIZE];
  char crc[TEXT_SIZE];
  read_member(json, "\"version\"", version);
  read_member(json, "\"crc\"", crc);
  int need = 0;
  const int result = compare_with_active(version, &need);
  if (result != 0)
    return failed("comparing the version of info.json", -result);
  if (need == 0)
    return 0;
  return component_update(IMAGE, strtoul(crc, NULL, 10), version);
}

/* Both texts are the caller's and go away: copy what you need later. */
int setContext(const char* libName, int caller, char* data) {
  (void)libName;
  (void)caller;
  (void)data;
  return 0;
}

/* Nobody asks an EXT- module, but the entry point must be there. */
int getEMPID(char* out) {
  out[0] = '\0';
  return 0;
}

int getActiveVersion(char* out) {
  return answer(component_read_version(out));
}

int checkVersion(const char* version, int* need) {
  return answer(compare_with_active(version, need));
}

/* The arguments are the module's own library name and 0. */
int doUpdate(const char* path, unsigned long value) {
  (void)path;
  (void)value;
  return answer(run_own_procedure());
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component_progress();
  return 0;
}
