"""Writes a C program that tells sizes and offsets of the structs that kelm._structs mirrors."""

import sys
from typing import List


def source_of(structs: dict) -> str:
    lines: List[str] = ["#include <stdio.h>", '#include "kelm/kelm.h"', "int main(void) {"]
    for name, kind in structs.items():
        lines.append(f'printf("{name} %zu\\n", sizeof(struct {name}));')
        for field, _ in kind._fields_:
            lines.append(
                f'printf("{name}.{field} %zu %zu\\n", offsetof(struct {name}, {field}), '
                f"sizeof(((struct {name}*)0)->{field}));"
            )
    return "\n".join(lines + ["return 0;", "}"]) + "\n"


if __name__ == "__main__":
    # The module alone: the package would load the library, which may not be built yet.
    sys.path.insert(0, sys.argv[1])
    import _structs

    with open(sys.argv[2], "w") as output:
        output.write(source_of(_structs.STRUCTS))
