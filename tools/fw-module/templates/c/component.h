/* The component that the module serves: which firmware is active on it, and how new
 * firmware gets there. This one is a file, so that the module runs anywhere; put what
 * talks to your hardware into component.c. All functions may be called from any thread;
 * they return 0, or a negative errno value. */
#ifndef COMPONENT_H
#define COMPONENT_H

enum { TEXT_SIZE = 128 }; /* of every text that the library gets or hands over */

int component_read_version(char version[TEXT_SIZE]);

/* Writes the image at path, whose CRC-32 is crc. The old firmware stays active and whole
 * until all of the new one is there, and after a failure. */
int component_update(const char* path, unsigned long crc, const char* version);

/* 0 to 100, of the update that runs or that ran last in this process. */
unsigned int component_progress(void);

#endif
