#define _GNU_SOURCE
#include "component.h"

#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "reason.h"

#define DIRECTORY "/var/lib/fw-components"
#define LOCK DIRECTORY "/@FIRMWARE@.lock"
/* The version on the first line, then the firmware. */
#define FLASH DIRECTORY "/@FIRMWARE@.firmware"
#define NEW_FLASH DIRECTORY "/@FIRMWARE@.firmware.new"

static atomic_uint percent;

/* The CRC-32 of firmware images: polynomial 0x01B23CA3, nothing reflected or inverted. */
static uint32_t extend_crc(uint32_t crc, const unsigned char* bytes, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    crc ^= (uint32_t)bytes[i] << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 0x80000000U) != 0 ? (crc << 1) ^ 0x01B23CA3U : crc << 1;
  }
  return crc;
}

static int write_all(int descriptor, const void* data, size_t size) {
  const char* bytes = data;
  while (size > 0) {
    const ssize_t written = write(descriptor, bytes, size);
    if (written < 0)
      return failed(NEW_FLASH, errno);
    bytes += written;
    size -= (size_t)written;
  }
  return 0;
}

static int copy(int image, int flash, unsigned long expected_crc) {
  struct stat status;
  if (fstat(image, &status) != 0)
    return failed("the image", errno);
  if (!S_ISREG(status.st_mode) || status.st_size == 0)
    return failed("the image is no file, or empty", EINVAL);
  unsigned char block[16384];
  uint32_t crc = 0;
  for (int64_t done = 0; done < status.st_size;) {
    const ssize_t size = read(image, block, sizeof block);
    if (size <= 0)
      return failed("reading the image", size < 0 ? errno : EIO);
    const int result = write_all(flash, block, (size_t)size);
    if (result != 0)
      return result;
    crc = extend_crc(crc, block, (size_t)size);
    done += size;
    percent = (unsigned int)(done * 99 / status.st_size);
  }
  /* It was right when the library looked; this is what was read now. */
  return crc == expected_crc ? 0 : failed("the image has another checksum", EBADMSG);
}

/* All of it is on the medium when this returns 0. */
static int write_new_flash(int image, unsigned long crc, const char* version) {
  const int flash = open(NEW_FLASH, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (flash < 0)
    return failed(NEW_FLASH, errno);
  int result = write_all(flash, version, strlen(version));
  if (result == 0)
    result = write_all(flash, "\n", 1);
  if (result == 0)
    result = copy(image, flash, crc);
  if (result == 0 && fsync(flash) != 0)
    result = failed(NEW_FLASH, errno);
  close(flash);
  return result;
}

/* One rename, so that there is no moment without firmware. */
static int activate(void) {
  const int directory = open(DIRECTORY, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0)
    return failed(DIRECTORY, errno);
  int result = 0;
  if (rename(NEW_FLASH, FLASH) != 0 || fsync(directory) != 0)
    result = failed(FLASH, errno);
  close(directory);
  return result;
}

int component_read_version(char version[TEXT_SIZE]) {
  strcpy(version, "0.0.0");
  FILE* flash = fopen(FLASH, "re");
  if (flash == NULL)
    return errno == ENOENT ? 0 : -errno;
  char line[TEXT_SIZE + 1];
  const int whole = fgets(line, sizeof line, flash) != NULL && strchr(line, '\n') != NULL;
  fclose(flash);
  if (!whole)
    return -EBADMSG;
  line[strcspn(line, "\n")] = '\0';
  strcpy(version, line);
  return 0;
}

int component_update(const char* path, unsigned long crc, const char* version) {
  /* An update that ran out of time may still be writing, in this process or another. */
  const int lock = open(LOCK, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0)
    return failed(LOCK, errno);
  int result = 0;
  if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    result = failed(LOCK, errno);
    close(lock);
    return result;
  }
  percent = 0;
  const int image = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  result = image < 0 ? failed(path, errno) : write_new_flash(image, crc, version);
  if (image >= 0)
    close(image);
  if (result == 0)
    result = activate();
  if (result == 0)
    percent = 100;
  else
    unlink(NEW_FLASH);
  close(lock);
  return result;
}

unsigned int component_progress(void) {
  return percent;
}
