/* The update module @NAME@: what the update library calls. Every entry point answers 0
 * or a negative errno value, which errno holds as well: the library logs both. */
#define _GNU_SOURCE
#include <errno.h>
#include <fw-update-module.h>
#include <pthread.h>
#include <string.h>

#include "component.h"

enum { EXPECTED_SECONDS = 30 };

/* Entry points are called from several threads. */
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static char checked_version[TEXT_SIZE]; /* guarded by mutex */

static int answer(int result) {
  if (result != 0)
    errno = -result;
  return result;
}

static int is_version(const char* text) {
  const size_t length = strspn(text, "0123456789.");
  return length > 0 && length < TEXT_SIZE && text[length] == '\0' && text[0] != '.';
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

/* The version of the image that doUpdate gets next. */
int checkVersion(const char* version, int* need) {
  char active[TEXT_SIZE];
  if (!is_version(version))
    return answer(-EINVAL);
  const int result = component_read_version(active);
  if (result != 0)
    return answer(result);
  *need = strverscmp(version, active) > 0;
  pthread_mutex_lock(&mutex);
  strcpy(checked_version, version);
  pthread_mutex_unlock(&mutex);
  return 0;
}

int doUpdate(const char* path, unsigned long value) {
  char version[TEXT_SIZE];
  pthread_mutex_lock(&mutex);
  strcpy(version, checked_version);
  pthread_mutex_unlock(&mutex); /* the others are asked while the update runs */
  return answer(component_update(path, value, version));
}

int getExpectedTime(int* seconds) {
  *seconds = EXPECTED_SECONDS;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component_progress();
  return 0;
}
