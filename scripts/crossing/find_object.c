// _dl_find_object of the GNU C library, by which GCC 12's unwinder finds what describes a function's
// stack. Here it is found among the program headers.
#include <link.h>
#include <stddef.h>
#include <stdint.h>

// As in the GNU C library's dlfcn.h, for amd64.
struct dl_find_object {
  unsigned long long flags;
  void* map_start;
  void* map_end;
  struct link_map* map;
  void* eh_frame;
  unsigned long long reserved[7];
};

struct search {
  uintptr_t address;
  struct dl_find_object* found;
};

static int look(struct dl_phdr_info* object, size_t size, void* context) {
  (void)size;
  struct search* const search = context;
  uintptr_t frames = 0, start = 0, end = 0;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)* const header = &object->dlpi_phdr[i];
    const uintptr_t from = object->dlpi_addr + header->p_vaddr;
    const uintptr_t to = from + header->p_memsz;
    if (header->p_type == PT_GNU_EH_FRAME) frames = from;
    if (header->p_type == PT_LOAD && search->address >= from && search->address < to) {
      start = from;
      end = to;
    }
  }
  if (end == 0 || frames == 0) return 0;
  *search->found = (struct dl_find_object){
      .map_start = (void*)start, .map_end = (void*)end, .eh_frame = (void*)frames};
  return 1;
}

int _dl_find_object(void* address, struct dl_find_object* found);
int _dl_find_object(void* address, struct dl_find_object* found) {
  struct search search = {(uintptr_t)address, found};
  return dl_iterate_phdr(look, &search) != 0 ? 0 : -1;
}
