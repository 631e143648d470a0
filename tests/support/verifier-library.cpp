// A signature-verification library for tests, which asks the test program. Also
// built without its entry point, and with one that is null.
extern "C" int scripted_verifyFile(int reserved, const char* filePath, const char* caller);

#ifndef WITHOUT_verifyFile
extern "C" __attribute__((visibility("default"))) int verifyFile(int reserved, const char* filePath,
                                                                 const char* caller) {
  return scripted_verifyFile(reserved, filePath, caller);
}
#endif
