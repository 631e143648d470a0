/* The update module @NAME@: what the update library calls. Every entry point answers 0
 * or a negative errno value, which errno holds as well: the library logs both. */
#define _GNU_SOURCE
#include <errno.h>
#include <fw-update-module.h>
#include <stdio.h>
#include <string.h>

#include "component.h"
#include "reason.h"

enum { EXPECTED_SECONDS = 30 };

static int answer(int result) {
  if (result != 0)
    errno = -result;
  return result;
}

static int is_version(const char* text) {
  const size_t length = strspn(text, "0123456789.");
  return length > 0 && length < TEXT_SIZE && text[length] == '\0' && text[0] != '.';
}

/* The version of the image at path, from the "info.json" beside it. A query may have asked
 * checkVersion about another one since. */
static int read_image_version(const char* path, char version[TEXT_SIZE]) {
  const char* slash = strrchr(path, '/');
  char information[4096];
  const int folder = slash == NULL ? 0 : (int)(slash - path) + 1;
  if (snprintf(information, sizeof information, "%.*sinfo.json", folder, path) >= (int)sizeof information)
    return -ENAMETOOLONG;
  FILE* file = fopen(information, "re"); /* close-on-exec: not the module's process */
  if (file == NULL)
    return -errno;
  char json[4096];
  json[fread(json, 1, sizeof json - 1, file)] = '\0';
  fclose(file);
  const char* text = strstr(json, "\"version\"");
  if (text == NULL)
    return -EINVAL;
  text += strlen("\"version\"");
  text += strspn(text, ": \t\n\"");
  const size_t length = strcspn(text, " \t\n\",}");
  if (length >= TEXT_SIZE)
    return -EINVAL;
  memcpy(version, text, length);
  version[length] = '\0';
  return is_version(version) ? 0 : -EINVAL;
}

/* Both texts are the caller's and go away: copy what you need later. */
int setContext(const char* libName, int caller, char* data) {
  (void)libName;
  (void)caller;
  (void)data;
  return 0;
}

int getEMPID(char* out) {
  strcpy(out, "@IDENTIFIER@");
  return 0;
}

int getActiveVersion(char* out) {
  return answer(component_read_version(out));
}

/* Asked about images, and about packages that are only looked at. */
int checkVersion(const char* version, int* need) {
  char active[TEXT_SIZE];
  if (!is_version(version))
    return answer(-EINVAL);
  const int result = component_read_version(active);
  if (result == 0)
    *need = strverscmp(version, active) > 0;
  return answer(result);
}

int doUpdate(const char* path, unsigned long value) {
  char version[TEXT_SIZE];
  const int result = read_image_version(path, version);
  return answer(result == 0 ? component_update(path, value, version)
                            : failed("the version in info.json beside the image", -result));
}

int getExpectedTime(int* seconds) {
  *seconds = EXPECTED_SECONDS;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component_progress();
  return 0;
}
