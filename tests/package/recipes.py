#!/usr/bin/env python3
"""Tries the port for vcpkg and the recipe for Conan as far as that goes without these tools.

    recipes.py --root <the tree of the library> --build-dir <where it is built> --work-dir DIR --compiler PROGRAM

The port runs with stand-ins for vcpkg's functions. The recipe runs with stand-ins for Conan's classes: the files that it
exports have to be enough to configure with its settings. The project that tests its package is built with an installed
library, and run.
"""

import argparse
import fnmatch
import json
import pathlib
import re
import shutil
import subprocess
import sys
import types


def fail(text):
    sys.exit(f"recipes: {text}")


def run(*command):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        fail(f"{' '.join(map(str, command))}\nended with {done.returncode}\n{done.stdout}")
    return done.stdout


def configure(source, build, variables):
    """An option that the project does not know is a mistake of the recipe."""
    output = run("cmake", "-S", source, "-B", build, "-G", "Ninja", *(f"-D{k}={v}" for k, v in variables.items()))
    if "not used by the project" in output:
        fail(output)


# ---- What stands in for Conan ----

class ConanFile:
    def __init__(self):
        self.required = {}
        self.cpp_info = types.SimpleNamespace(defines=[], properties={})
        self.cpp_info.set_property = self.cpp_info.properties.__setitem__

    def requires(self, reference, **traits):
        self.required[reference.split("/")[0]] = traits


def copy(_recipe, pattern, src, dst, excludes=""):
    source = pathlib.Path(src).resolve()
    listed = run("git", "-C", source, "ls-files", "--cached", "--others", "--exclude-standard").splitlines()
    found = [name for name in listed if fnmatch.fnmatch(name, pattern) and not fnmatch.fnmatch(name, excludes)]
    if not found:
        fail(f"the recipe copies {pattern}, but there is no such file")
    for name in found:
        target = pathlib.Path(dst) / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source / name, target)


class Toolchain:
    made = None

    def __init__(self, _recipe):
        self.cache_variables = {}
        Toolchain.made = self

    def generate(self):
        pass


class Deps:
    def __init__(self, _recipe):
        pass

    def generate(self):
        pass


def stand_in():
    parts = {
        "conan": {"ConanFile": ConanFile},
        "conan.tools": {},
        "conan.tools.build": {"can_run": None},
        "conan.tools.cmake": {"CMake": None, "CMakeDeps": Deps, "CMakeToolchain": Toolchain, "cmake_layout": None},
        "conan.tools.files": {"copy": copy, "rmdir": None},
    }
    for name, content in parts.items():
        module = types.ModuleType(name)
        vars(module).update(content)
        sys.modules[name] = module


def load(file):
    module = types.ModuleType(file.stem)
    exec(compile(file.read_text(encoding="utf-8"), str(file), "exec"), vars(module))
    return module


# ---- The checks ----

class Recipes:
    def __init__(self, options):
        self.root, self.build, self.work = options.root, options.build_dir, options.work_dir
        self.compiler = options.compiler
        self.version = re.search(r"project\(qvtp VERSION ([\d.]+)", (self.root / "CMakeLists.txt").read_text())[1]
        shutil.rmtree(self.work, ignore_errors=True)

    def expect_version(self, place, version):
        if version != self.version:
            fail(f"{place} is for version {version} instead of {self.version}")

    def try_port(self):
        port = self.root / "packaging/vcpkg/libqvtp"
        manifest = json.loads((port / "vcpkg.json").read_text(encoding="utf-8"))
        self.expect_version("vcpkg.json", manifest["version"])
        if port.name != manifest["name"]:
            fail(f"the folder of the port {manifest['name']} is {port.name}")
        for features in ([], list(manifest["features"])):
            run("cmake", f"-DPORTFILE={port / 'portfile.cmake'}", f"-DFEATURES={';'.join(features)}",
                f"-DBUILD_DIR={self.build}", f"-DCURRENT_PACKAGES_DIR={self.work / 'port'}", "-P",
                self.root / "tests/package/vcpkg_functions.cmake")

    def try_recipe(self):
        stand_in()
        folder = self.root / "packaging/conan"
        recipe_class = load(folder / "conanfile.py").Libqvtp
        self.expect_version("conanfile.py", recipe_class.version)
        for shared in (True, False):
            recipe = recipe_class()
            recipe.options = types.SimpleNamespace(shared=shared)
            recipe.settings = types.SimpleNamespace(os="Linux")
            recipe.recipe_folder = str(folder)
            recipe.export_sources_folder = str(self.work / "exported")
            recipe.export_sources()
            recipe.requirements()
            recipe.generate()
            configure(self.work / "exported", self.work / f"configured-{shared}",
                      {**Toolchain.made.cache_variables, "BUILD_SHARED_LIBS": shared})
            recipe.package_info()
            self.check_info(recipe, shared)

    @staticmethod
    def check_info(recipe, shared):
        used = {name.split("::")[0] for name in recipe.cpp_info.requires}
        if used != set(recipe.required):
            fail(f"the recipe requires {sorted(recipe.required)}, and its package uses {sorted(used)}")
        if ("QVTP_STATIC" in recipe.cpp_info.defines) == shared:
            fail(f"a {'shared' if shared else 'static'} package defines {recipe.cpp_info.defines}")

    def try_test_package(self):
        folder = self.root / "packaging/conan/test_package"
        load(folder / "conanfile.py")
        build = self.work / "test_package"
        configure(folder, build, {"CMAKE_PREFIX_PATH": self.work / "port", "CMAKE_CXX_COMPILER": self.compiler})
        run("cmake", "--build", build)
        printed = run(build / "test_package")
        if printed != "Hello world\n":
            fail(f"the program of the test package printed {printed}")


def main():
    parser = argparse.ArgumentParser()
    for option in ("--root", "--build-dir", "--work-dir"):
        parser.add_argument(option, type=pathlib.Path, required=True)
    parser.add_argument("--compiler", required=True)
    recipes = Recipes(parser.parse_args())
    recipes.try_port()
    recipes.try_recipe()
    recipes.try_test_package()


main()
