"""The built module as a host sees it: what it exports, and whom it needs."""
import os
import re
import subprocess

import harness

MODULE = os.path.join(harness.BUILD, "lib", "obs", "libobs_agent.so")
FACTORIES = {
    "_make_OBS_Instance_Handler", "_make_OBS_Job_Creator",
    "_make_OBS_Backup_Job_Options_Parser_Creator", "_make_OBS_Backup_Job_Source_Parser_Creator",
    "_make_OBS_Restore_Job_Options_Parser_Creator", "_make_OBS_Restore_Job_Source_Parser_Creator",
    "_make_JSON_RPC_OBS_List_Handler", "_make_JSON_RPC_OBS_Test_Handler",
}
MAPPER = re.compile(r"^Buckets_Mapper::(~?Buckets_Mapper|default_mapper|mappers|mapper)(\[abi:cxx11\])?\(")
ALLOWED = re.compile(r"^(libagent_platform|libACE|libyajl|libstdc\+\+|libgcc_s|libc|libm|ld-linux.*"
                     r"|libasan|libubsan|libtsan)[.-]")


def symbols(*options):
    listed = subprocess.run(["nm", "-D", "-C", *options, MODULE], stdout=subprocess.PIPE, check=True, text=True)
    return [line.split(None, 2 if "--defined-only" in options else 1)[-1] for line in listed.stdout.splitlines()]


class Boundary(harness.Scenario):
    def test_exactly_the_factories_and_the_mapper_are_exported(self):
        exported = set(symbols("--defined-only"))
        mapper = {name for name in exported if MAPPER.match(name)}
        self.assertEqual(FACTORIES, exported - mapper)
        for operation in ("Buckets_Mapper()", "~Buckets_Mapper()", "default_mapper()", "mappers", "mapper("):
            self.assertTrue(any("Buckets_Mapper::" + operation in name for name in mapper), operation)

    def test_the_module_needs_only_the_platform_and_the_libraries_of_its_interfaces(self):
        dynamic = subprocess.run(["readelf", "-d", "-W", MODULE], stdout=subprocess.PIPE, check=True, text=True).stdout
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
        self.assertTrue(needed)
        self.assertEqual([], [name for name in needed if not ALLOWED.match(name)])

    def test_disposers_are_local(self):
        listed = subprocess.run(["nm", "-C", MODULE], stdout=subprocess.PIPE, check=True, text=True).stdout
        kinds = {name: kind for kind, name in re.findall(r" (\w) (_gobble_\w+)\(void\*\)$", listed, re.MULTILINE)}
        self.assertEqual({"_gobble_" + name[len("_make_"):] for name in FACTORIES}, set(kinds))
        self.assertEqual({"t"}, set(kinds.values()), kinds)

    def test_every_symbol_comes_from_one_of_the_allowed_libraries(self):
        listed = subprocess.run(["ldd", MODULE], stdout=subprocess.PIPE, check=True, text=True).stdout
        files = {os.path.basename(name): path or name for name, path in re.findall(r"^\s*(\S+) (?:=> (\S+) )?\(", listed,
                                                                           re.MULTILINE)}
        needed = [name for name in files if ALLOWED.match(name)]
        self.assertTrue(any(name.startswith("libagent_platform") for name in needed))
        provided = set()
        for name in needed:
            defined = subprocess.run(["nm", "-D", "--defined-only", files[name]], stdout=subprocess.PIPE,
                                     check=True, text=True).stdout
            provided.update(line.split()[-1].split("@")[0] for line in defined.splitlines())
        listed = subprocess.run(["nm", "-D", "--undefined-only", MODULE], stdout=subprocess.PIPE, check=True,
                                text=True).stdout
        # Lower case: weak ones, which may stay undefined.
        wanted = {line.split()[-1].split("@")[0] for line in listed.splitlines() if " U " in line}
        self.assertTrue(wanted)
        self.assertEqual(set(), wanted - provided)

    def test_every_symbol_it_needs_is_found(self):
        # The program's own loader says what ldd would: that of another architecture may lie anywhere.
        headers = subprocess.run(["readelf", "-l", "-W", harness.AGENT], stdout=subprocess.PIPE, check=True,
                                 text=True).stdout
        loader = re.search(r"program interpreter: (.*)\]", headers).group(1)
        unresolved = subprocess.run([loader, MODULE], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                    env=dict(os.environ, LD_TRACE_LOADED_OBJECTS="1", LD_WARN="1", LD_BIND_NOW="1")
                                    ).stdout
        self.assertRegex(unresolved, r"libagent_platform\.so => /")
        self.assertNotIn("undefined symbol", unresolved)
        self.assertNotIn("not found", unresolved)


if __name__ == "__main__":
    harness.main()
