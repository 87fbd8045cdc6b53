import re
from pathlib import Path

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load


class Velt(ConanFile):
    name = "velt"
    description = "Foundation library for 64-bit Win32"
    license = "MIT"
    package_type = "shared-library"
    settings = "os", "arch", "compiler", "build_type"

    def _tree(self):
        """The unpacked source archive, in which this recipe lies."""
        return Path(self.recipe_folder).parent.parent

    def set_version(self):
        header = load(self, str(self._tree() / "velt/base/Version.h"))
        self.version = ".".join(re.findall(r"#define VELT_VERSION_\w+ (\d+)", header))

    def export_sources(self):
        for pattern in ("CMakeLists.txt", "LICENSE", "cmake/*", "debuggers/*", "velt/*"):
            copy(self, pattern, str(self._tree()), self.export_sources_folder)

    def validate(self):
        target = (str(self.settings.os), str(self.settings.arch), str(self.settings.compiler))
        if target != ("Windows", "x86_64", "gcc"):
            raise ConanInvalidConfiguration("velt is built by MinGW-w64 GCC for 64-bit Windows")

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["VELT_TESTS"] = False
        toolchain.cache_variables["VELT_EXAMPLES"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        # The package's own files for CMake tell what clients need; these are for other
        # build systems.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [str(Path("lib", "cmake", "velt"))]
        self.cpp_info.libs = ["velt"]
        self.cpp_info.system_libs = ["ole32", "oleaut32", "uuid"]
        self.cpp_info.cxxflags = ["-fnon-call-exceptions"]
        self.cpp_info.sharedlinkflags = ["-Wl,--wrap=__gxx_personality_seh0"]
        self.cpp_info.exelinkflags = self.cpp_info.sharedlinkflags
