"""The library as a package of Conan 2, from the tree that this file lies in."""

import os

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy, rmdir

SOURCES = ("CMakeLists.txt", "*.md", "cmake/*", "docs/*", "include/*", "packaging/*", "src/*")


class Libqvtp(ConanFile):
    name = "libqvtp"
    version = "1.0.0"
    description = "Requests between processes of one host over local pipes"
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False]}
    default_options = {"shared": True}

    def export_sources(self):
        root = os.path.join(self.recipe_folder, "..", "..")
        for pattern in SOURCES:
            copy(self, pattern, src=root, dst=self.export_sources_folder, excludes="build/*")

    def layout(self):
        cmake_layout(self)

    def requirements(self):
        # A public header shows one of its classes.
        self.requires("poco/[>=1.11 <1.13]", transitive_headers=True)
        # The shared library loads its parser by itself, as a module. A static one has it linked in.
        self.requires("xerces-c/[>=3.2 <4]", visible=not self.options.shared)

    def generate(self):
        CMakeDeps(self).generate()
        toolchain = CMakeToolchain(self)
        for part in ("TESTS", "EXAMPLES", "TOOLS"):
            toolchain.cache_variables[f"QVTP_BUILD_{part}"] = False
        toolchain.cache_variables["QVTP_INSTALL"] = True
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()
        for folder in ("cmake", "pkgconfig"):  # Conan writes these itself
            rmdir(self, os.path.join(self.package_folder, "lib", folder))
        copy(self, "copyright", src=os.path.join(self.source_folder, "packaging"),
             dst=os.path.join(self.package_folder, "licenses"))

    def package_info(self):
        self.cpp_info.libs = ["qvtp"]
        self.cpp_info.set_property("cmake_file_name", "qvtp")
        self.cpp_info.set_property("cmake_target_name", "qvtp::qvtp")
        self.cpp_info.set_property("pkg_config_name", "qvtp")
        self.cpp_info.requires = ["poco::poco_foundation", "xerces-c::xerces-c"]
        if not self.options.shared:
            self.cpp_info.defines.append("QVTP_STATIC")
        if self.settings.os == "Windows":
            self.cpp_info.defines += ["NOGDI", "NOMINMAX"]
        else:
            self.cpp_info.system_libs = ["pthread", "dl"]
