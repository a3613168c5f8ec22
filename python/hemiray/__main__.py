"""Command line of the hemiray package.

    python3 -m hemiray import IN -o MODEL     any mesh meshio reads -> hemiray model
    python3 -m hemiray export RESULT -o OUT.vtu [--to GLOB ...]
"""

import argparse
import os
import sys

import hemiray


def _import(args):
    import meshio

    if os.path.exists(args.output) and not args.force:
        raise ValueError(f"{args.output} exists; use --force to replace it")
    zone_types = {}
    for item in args.zone_type:
        name, _, code = item.rpartition("=")
        if not name or not code.lstrip("-").isdigit():
            raise ValueError(f"--zone-type {item}: expected PART=TYPE")
        zone_types[name] = int(code)
    try:
        mesh = meshio.read(args.input)
    except Exception as error:  # meshio raises many kinds; all mean "cannot read"
        raise ValueError(f"cannot read {args.input}: {error}") from None
    fixed = []
    model = hemiray.Model.from_meshio(
        mesh, glob_per_face=args.glob_per_face, flip=args.flip, two_sided=args.two_sided,
        subdivide_size=args.subdivide, zone_types=zone_types, dimension=args.dimension,
        resolution=args.resolution, report=fixed)
    for line in fixed:
        print(f"flipped: {line}")
    model.write(args.output)
    print(f"{args.output}: {model.face_count} faces, {model.glob_count} globs, "
          f"dimension {model.dimension}")
    for zone, (name, zone_type) in enumerate(zip(model.part_names, model.zone_types)):
        faces = model.face_zones == zone
        globs = sorted(set(model.face_globs[faces].tolist()) - {-1})
        span = f"globs {globs[0]}-{globs[-1]}" if len(globs) > 1 else \
            f"glob {globs[0]}" if globs else "no glob"
        print(f"  zone {model.zone_ids[zone]}: {name} (type {zone_type}), "
              f"{int(faces.sum())} faces, {span}")


def _export(args):
    if os.path.exists(args.output) and not args.force:
        raise ValueError(f"{args.output} exists; use --force to replace it")
    result = hemiray.read_result(args.result)
    result.to_vtu(args.output, to_globs=args.to)
    print(f"{args.output}: {result.model.glob_count} globs, {result.active_globs.size} rows "
          f"({result.kind} result)")


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m hemiray",
                                     description="hemiray models from common meshes, and "
                                                 "results for ParaView")
    commands = parser.add_subparsers(dest="command", required=True)

    imp = commands.add_parser("import", help="write a hemiray model from any mesh meshio reads")
    imp.add_argument("input", help="mesh file (Gmsh .msh, .stl, .obj, .vtu, ...)")
    imp.add_argument("-o", "--output", required=True, help="model file (.gz: compressed)")
    imp.add_argument("--glob-per-face", action="store_true",
                     help="one glob per face (default: one per physical group or cell set)")
    imp.add_argument("--flip", action="store_true",
                     help="orient every surface consistently and closed ones towards their inside")
    imp.add_argument("--two-sided", action="append", default=[], metavar="PART",
                     help="add a reversed copy of a thin part as its own zone and globs")
    imp.add_argument("--subdivide", type=float, metavar="SIZE",
                     help="split faces with edges longer than SIZE (model units)")
    imp.add_argument("--zone-type", action="append", default=[], metavar="PART=TYPE",
                     help="zone type of a part (2007 mirror; default 1, a wall)")
    imp.add_argument("--dimension", type=int, choices=(1, 2, 3),
                     help="1 axisymmetric, 2 planar (segment meshes), 3 (surface meshes)")
    imp.add_argument("--resolution", type=int, default=20,
                     help="hemisphere resolution (default 20)")
    imp.add_argument("--force", action="store_true", help="replace an existing file")
    imp.set_defaults(run=_import)

    exp = commands.add_parser("export", help="write a result's view factors as a VTU file")
    exp.add_argument("result", help="result file (text, binary, .gz or .h5)")
    exp.add_argument("-o", "--output", required=True, help="VTU file to write")
    exp.add_argument("--to", type=int, action="append", default=[], metavar="GLOB",
                     help="also write the factors to this glob (repeatable)")
    exp.add_argument("--force", action="store_true", help="replace an existing file")
    exp.set_defaults(run=_export)

    args = parser.parse_args(argv)
    try:
        args.run(args)
    except (ValueError, OSError) as error:
        print(f"hemiray: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
