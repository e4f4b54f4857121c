// Start-up, module registration and registered objects of the core library.
#pragma once
#include <cstdint>

// A module: identity texts and one function (for the descriptors in a module list: the register
// function; for the records handed to ModuleRegister: the initialisation function).
struct ModuleDescriptor {
  const char *name;
  const char *version;
  const char *notice;
  const char *stamp;
  uint32_t (*function)();
  void *reserved[3];
};

// One node of the module list handed to CoreInit.
struct ModuleListNode {
  uint64_t word0;
  const ModuleListNode *next;
  const ModuleDescriptor *module;
  uint64_t word1;
};

using CoreConstructor = uint32_t (*)(void **object);
using CoreDestructor = uint32_t (*)(void *object);
using CoreCallback = uint32_t (*)(void *context);

// The argument vector and the address of the argument count; option parsing rewrites both.
extern char **CoreArgv;
extern int *CoreArgc;
// The program name (as given to CorePreinit), used in usage lines and environment names.
extern const char *Main;

// Register an object that CoreInit constructs (storing it through object) and process end destroys.
void CoreRegisterAfter(const char *name, const char *version, const char *notice,
                       CoreConstructor construct, CoreDestructor destruct, void **object);
// Announces the program; first of all, opens /dev/null on any of descriptors 0, 1, 2 that is closed.
void CorePreinit(const char *program, const char *version, const char *notice, const char *tag);
// Register and initialise the listed modules, run the registered callbacks, construct the registered
// objects, then run the program's callback. Returns the first failing status, 0 on success.
uint32_t CoreInit(const char *program, const ModuleListNode *modules, uint32_t (*callback)(),
                  uint64_t flags, uint32_t *word);
// Register an initialisation callback that CoreInit runs with its context.
uint32_t CoreRegister(const char *name, const char *version, const char *notice, CoreCallback callback,
                      void *context);
// Record a registration failure; CoreInit then fails with it.
void CoreRegisterSetStatus(uint32_t status);
// Register a module's initialisation function (the record's function), run by CoreInit.
uint32_t ModuleRegister(const ModuleDescriptor *module);

// The library modules a program names in its module list.
extern const ModuleDescriptor ImageioModule, FFFioModule, StringFormatModule, StringParseModule,
    FileioModule, IOModule, ChecksumModule, ImageioExtraModule, ZvdataModule, StatisticsModule,
    ImageModule, ArrayModule, BaseModule;
