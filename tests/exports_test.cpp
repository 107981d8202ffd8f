// SPDX-License-Identifier: LGPL-2.1-or-later
// The shipped plug-in from outside: its names, what it needs, and that it loads.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace {

using Names = std::set<std::string>;

/// The dynamic symbols and needed libraries of an ELF file.
struct Dynamic {
  Names defined, undefined, needed;
};

template <typename T>
T at(const std::string& file, size_t offset) {
  T value;
  std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

Dynamic read_dynamic(const char* path) {
  std::ifstream in(path, std::ios::binary);
  const std::string file{std::istreambuf_iterator<char>(in), {}};
  Dynamic result;
  const auto head = at<ElfW(Ehdr)>(file, 0);
  const auto section = [&](size_t i) {
    return at<ElfW(Shdr)>(file, head.e_shoff + i * head.e_shentsize);
  };
  for (size_t i = 0; i < head.e_shnum; ++i) {
    const ElfW(Shdr) table = section(i);
    if (table.sh_type != SHT_DYNSYM && table.sh_type != SHT_DYNAMIC) continue;
    const char* texts = file.data() + section(table.sh_link).sh_offset;
    for (size_t o = table.sh_offset; o < table.sh_offset + table.sh_size; o += table.sh_entsize) {
      if (table.sh_type == SHT_DYNAMIC) {
        const auto entry = at<ElfW(Dyn)>(file, o);
        if (entry.d_tag == DT_NEEDED) result.needed.insert(texts + entry.d_un.d_val);
        continue;
      }
      const auto symbol = at<ElfW(Sym)>(file, o);
      const bool weak = ELF64_ST_BIND(symbol.st_info) == STB_WEAK;
      if (symbol.st_name == 0 || (weak && symbol.st_shndx == SHN_UNDEF)) continue;
      (symbol.st_shndx == SHN_UNDEF ? result.undefined : result.defined)
          .insert(texts + symbol.st_name);
    }
  }
  return result;
}

bool begins(const std::string& name, const char* with) {
  return name.rfind(with, 0) == 0;
}

TEST(Plugin, ExportsExactlyTheListedNames) {
  std::ifstream list(WRX_EXPORTED_NAMES);
  const Names listed{std::istream_iterator<std::string>(list), {}};
  ASSERT_GT(listed.size(), 100U);
  Names defined = read_dynamic(WRX_PLUGIN).defined;
  std::erase_if(defined, [](const std::string& name) { return begins(name, "__"); });  // sanitizers
  EXPECT_EQ(defined, listed);
}

TEST(Plugin, NeedsOnlyTheFrameworkGlibLibusbAndC) {
  const Dynamic plugin = read_dynamic(WRX_PLUGIN);
  for (const std::string& name : plugin.needed) {
    const char* const known[] = {"libbiometric.so", "libglib-2.0.so", "libusb-1.0.so",
                                 "libc.so",         "ld-linux",       "libasan",
                                 "libubsan",        "libtsan",        "libm.so"};
    EXPECT_TRUE(std::any_of(std::begin(known), std::end(known), [&](const char* library) {
      return begins(name, library);
    })) << name;
  }
  void* c = dlopen("libc.so.6", RTLD_NOW);
  for (const std::string& name : plugin.undefined) {
    const bool known = begins(name, "bio_") || begins(name, "libusb_") || begins(name, "g_") ||
                       name == "print_feature_info" || begins(name, "__");
    EXPECT_TRUE(known || dlsym(c, name.c_str()) != nullptr) << name;
  }
}

// A name of the host's may take none of the driver's; libusb's thread may not outlive its code.
TEST(Plugin, IsBoundToItselfAndStays) {
  void* plugin = dlopen(WRX_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  EXPECT_EQ(dlclose(plugin), 0);
  EXPECT_EQ(dlopen(WRX_PLUGIN, RTLD_NOW | RTLD_NOLOAD), plugin);
  const link_map* map = static_cast<const link_map*>(plugin);
  const ElfW(Dyn)* entry = map->l_ld;
  while (entry->d_tag != DT_NULL && entry->d_tag != DT_FLAGS)
    ++entry;
  EXPECT_TRUE(entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_SYMBOLIC) != 0);
}

TEST(Plugin, LoadsWithEverySymbolResolved) {
  void* plugin = dlopen(WRX_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  EXPECT_NE(dlsym(plugin, "ops_configure"), nullptr);
  EXPECT_EQ(dlclose(plugin), 0);
}

}  // namespace
