"""Copies csrc/cuda into a folder the host compiler can build with emulate.h:
launches become emu::launch calls, 16- and 8-byte accesses alignment-checked."""
import os
import re
import sys

LAUNCH = re.compile(r"([A-Za-z_][\w:]*(?:<[^;<>]*(?:<[^<>]*>)?[^;<>]*>)?)\s*<<<(.*?)>>>\(", re.S)


def launch(m):
    config = [x.strip() for x in re.split(r",(?![^()]*\))", m.group(2))]
    config += ["0", "nullptr"][len(config) - 2:]
    return f"emu::launch({m.group(1)}, {', '.join(config)}, "


def main(src, dst):
    for root, _, files in os.walk(src):
        for name in files:
            path = os.path.join(root, name)
            text = open(path).read()
            text = LAUNCH.sub(launch, text)
            for t in ("uint4", "uint2"):
                text = text.replace(f"reinterpret_cast<const {t}*>(", f"emu::aligned_cast<const {t}>(")
                text = text.replace(f"reinterpret_cast<{t}*>(", f"emu::aligned_cast<{t}>(")
            text = re.sub(r"extern __shared__ (\w+) (\w+)\[\];",
                          r"\1* \2 = reinterpret_cast<\1*>(emu::dynamic_shared.data());", text)
            text = text.replace("return launch_status();", "return emu::last_error;")
            out = os.path.join(dst, os.path.relpath(path, src))
            if out.endswith(".cu"):
                out = out[:-3] + ".cpp"
            os.makedirs(os.path.dirname(out), exist_ok=True)
            open(out, "w").write(text)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
