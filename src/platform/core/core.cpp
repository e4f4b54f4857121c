// Start-up: modules register themselves and their initialisation, CoreInit runs the initialisations
// and constructs the registered objects, and process end destroys the objects (closing files) before
// the pending errors are reported.
#include "platform/core/core.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "platform/core/errors.h"

char **CoreArgv = nullptr;
int *CoreArgc = nullptr;
const char *Main = nullptr;

namespace {

struct RegisteredObject {
  CoreConstructor construct;
  CoreDestructor destruct;
  void **object;
  bool constructed;
};

struct RegisteredCallback {
  CoreCallback callback;
  void *context;
};

struct CoreState {
  std::vector<RegisteredObject> objects;
  std::vector<const ModuleDescriptor *> modules;
  std::vector<RegisteredCallback> callbacks;
  uint32_t status = 0;
  bool exit_hook = false;
};

// Never destroyed: process end uses it from an exit handler.
CoreState &State() {
  static auto *state = new CoreState;
  return *state;
}

// Objects go in reverse order of construction. A destructor that fails (a file that cannot be
// closed or put in place) turns a successful run into a failed one.
void CoreExit() {
  CoreState &s = State();
  bool failed = false;
  for (auto it = s.objects.rbegin(); it != s.objects.rend(); ++it) {
    if (!it->constructed) continue;
    it->constructed = false;
    if (uint32_t st = it->destruct(*it->object)) failed = ExceptionPush(st) != 0 || failed;
    *it->object = nullptr;
  }
  ExceptionReport(0);
  if (failed) std::_Exit(1);
}

// A closed standard descriptor would be handed to the next file opened, an image perhaps, and a
// diagnostic would then be written into that file: each closed one is opened on /dev/null first.
void KeepStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free descriptor is fd itself; without /dev/null there is no safe way to go on.
    if (open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY) != fd) _exit(1);
  }
}

}  // namespace

void CoreRegisterAfter(const char *, const char *, const char *, CoreConstructor construct,
                       CoreDestructor destruct, void **object) {
  State().objects.push_back({construct, destruct, object, false});
}

void CorePreinit(const char *program, const char *, const char *, const char *) {
  KeepStandardDescriptors();
  Main = program;
  CoreState &s = State();
  if (!s.exit_hook) {
    s.exit_hook = true;
    std::atexit(CoreExit);
  }
}

uint32_t CoreRegister(const char *, const char *, const char *, CoreCallback callback, void *context) {
  if (!callback) return ExceptionPush(E_ARGUMENT);
  State().callbacks.push_back({callback, context});
  return 0;
}

void CoreRegisterSetStatus(uint32_t status) {
  if (!State().status) State().status = status;
}

uint32_t ModuleRegister(const ModuleDescriptor *module) {
  if (!module) return ExceptionPush(E_ARGUMENT);
  State().modules.push_back(module);
  return 0;
}

uint32_t CoreInit(const char *program, const ModuleListNode *modules, uint32_t (*callback)(), uint64_t,
                  uint32_t *) {
  if (!Main) Main = program;
  CoreState &s = State();
  // Registration: each listed module's function registers its errors and initialisation.
  for (const ModuleListNode *n = modules; n; n = n->next) {
    if (!n->module || !n->module->function) continue;
    if (uint32_t st = n->module->function()) return st;
  }
  if (s.status) return ExceptionPush(s.status);
  for (const ModuleDescriptor *m : s.modules)
    if (m->function)
      if (uint32_t st = m->function()) return st;
  for (const RegisteredCallback &c : s.callbacks)
    if (uint32_t st = c.callback(c.context)) return st;
  if (callback)
    if (uint32_t st = callback()) return st;
  for (RegisteredObject &o : s.objects) {
    if (o.constructed) continue;
    if (uint32_t st = o.construct(o.object)) return st;
    o.constructed = true;
  }
  return 0;
}
