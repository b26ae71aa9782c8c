"""The Python binding declares the C interface's structures as vyra.h lays
them out: every field at the offset and of the size a C compiler gives it,
and no structure of another size. The C layout comes from the program
tests/hosts/c/abi_layout.c (its path in the environment variable
VYRA_ABI_LAYOUT), compiled from vyra.h."""

import ctypes
import os
import subprocess
import unittest

import vyra
from vyra import _ffi


def c_layout():
    out = subprocess.run([os.environ["VYRA_ABI_LAYOUT"]], capture_output=True, text=True, check=True).stdout
    layout = {}
    for line in out.splitlines():
        struct, field, *numbers = line.split()
        layout[(struct, field)] = tuple(int(n) for n in numbers)
    return layout


class AbiLayout(unittest.TestCase):
    STRUCTS = {"VyraSettings": _ffi.Settings, "VyraResult": _ffi.Result,
               "VyraRegion": _ffi.Region, "VyraKeyFrame": _ffi.KeyFrame}

    def test_every_declared_field_and_structure_matches_the_c_header(self):
        layout = c_layout()
        for name, struct in self.STRUCTS.items():
            with self.subTest(struct=name):
                self.assertEqual(layout[(name, "sizeof")], (ctypes.sizeof(struct),))
            for field, _ in struct._fields_:
                if (name, field) in layout:
                    with self.subTest(field=f"{name}.{field}"):
                        descriptor = getattr(struct, field)
                        self.assertEqual(layout[(name, field)], (descriptor.offset, descriptor.size))
        checked = {key for key in layout if key[1] != "sizeof"}
        declared = {(name, field) for name, struct in self.STRUCTS.items() for field, _ in struct._fields_}
        self.assertEqual(checked - declared, set(), "fields of vyra.h the binding does not declare")

    def test_key_frames_come_from_the_library_table_at_their_c_offsets(self):
        layout = c_layout()
        for field in _ffi.key_frame_fields():
            with self.subTest(key=field.key):
                self.assertEqual(layout[("VyraResult", field.key)][0], field.offset)
                self.assertIn(field.key, vyra.Measurement.__dataclass_fields__)


if __name__ == "__main__":
    unittest.main()
