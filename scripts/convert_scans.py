#!/usr/bin/env python3
"""Convert three real scans shipped by Debian packages to VX's raw + JSON form.

Output per scan, in OUTDIR:
  NAME.raw   signed 16-bit little-endian voxels, no header, x fastest, then y,
             then z (a C array [z][y][x])
  NAME.json  dims, spacing_mm, origin_mm, rescale_slope, rescale_intercept,
             modality, value_range, size_bytes, sha256, source_package,
             source_path_in_package, license, and notes

Standard library only. Every .raw is checked against the sha256 that the
known package versions give; a mismatch is reported and the exit status is 1.

usage: convert_scans.py OUTDIR [--cranium FILE] [--stent FILE] [--colin FILE]
                               [--version PKG=VER ...] [--only NAME ...]
"""

import argparse
import array
import ast
import gzip
import hashlib
import io
import json
import os
import plistlib
import struct
import sys
import tarfile
import zipfile

CRANIUM = "/usr/share/doc/invesalius-examples/examples/Cranium.inv3"
STENT = "/usr/lib/python3/dist-packages/imageio/resources/images/stent.npz"
COLIN = "/usr/share/mricron/templates/ch2.nii.gz"

LAYOUT = "x fastest, then y, then z (C-order array [z][y][x])"


class Volume:
    """int16 voxels in an array('h'), x fastest; dims (X, Y, Z)."""

    def __init__(self, voxels, dims):
        assert len(voxels) == dims[0] * dims[1] * dims[2], "voxel count does not match dims"
        self.voxels = voxels
        self.dims = dims

    def flip_x(self):
        X, Y, Z = self.dims
        v = self.voxels
        out = array.array("h")
        for row in range(Y * Z):
            out.extend(v[row * X:(row + 1) * X][::-1])
        self.voxels = out

    def flip_y(self):
        X, Y, Z = self.dims
        v = self.voxels
        out = array.array("h")
        for z in range(Z):
            base = z * X * Y
            for y in range(Y - 1, -1, -1):
                out.extend(v[base + y * X:base + (y + 1) * X])
        self.voxels = out

    def le_bytes(self):
        v = self.voxels
        if sys.byteorder == "big":
            v = array.array("h", v)
            v.byteswap()
        return v.tobytes()


def int16_from(raw, dtype):
    """Widen raw bytes of a numpy-style dtype ('<i2', '|u1', ...) to array('h')."""
    order, kind, size = dtype[0], dtype[1], int(dtype[2:])
    if kind == "u" and size == 1:
        return array.array("h", array.array("B", raw))
    if kind == "i" and size == 1:
        return array.array("h", array.array("b", raw))
    if kind == "i" and size == 2:
        a = array.array("h", raw)
        if (order == ">") != (sys.byteorder == "big") and order != "|":
            a.byteswap()
        return a
    sys.exit("convert_scans: unsupported voxel type %s" % dtype)


# ---- sources ----

def read_inv3(path):
    """InVesalius project: a gzip tar holding main.plist and matrix.dat."""
    with tarfile.open(path, "r:gz") as tar:
        members = {os.path.basename(m.name): m for m in tar.getmembers() if m.isfile()}
        plist = plistlib.load(tar.extractfile(members["main.plist"]))
        matrix = plist["matrix"]
        raw = tar.extractfile(members[matrix["filename"]]).read()
    nz, ny, nx = matrix["shape"]
    if matrix["dtype"] != "int16":
        sys.exit("convert_scans: %s: matrix dtype %s, expected int16" % (path, matrix["dtype"]))
    if len(raw) != nx * ny * nz * 2:
        sys.exit("convert_scans: %s: matrix.dat holds %d bytes, expected %d"
                 % (path, len(raw), nx * ny * nz * 2))
    vol = Volume(int16_from(raw, "<i2"), (nx, ny, nz))
    return vol, plist


def parse_npy(data):
    """The array of a .npy file: (dtype, shape, payload); C order only."""
    if data[:6] != b"\x93NUMPY":
        sys.exit("convert_scans: not a .npy array")
    major = data[6]
    if major == 1:
        (hlen,) = struct.unpack_from("<H", data, 8)
        start = 10
    else:
        (hlen,) = struct.unpack_from("<I", data, 8)
        start = 12
    header = ast.literal_eval(data[start:start + hlen].decode("latin1"))
    if header["fortran_order"]:
        sys.exit("convert_scans: Fortran-order .npy arrays are not supported")
    return header["descr"], tuple(header["shape"]), data[start + hlen:]


def read_npz(path, member="arr_0"):
    with zipfile.ZipFile(path) as z:
        data = z.read(member + ".npy")
    descr, shape, payload = parse_npy(data)
    if len(shape) != 3:
        sys.exit("convert_scans: %s: expected a 3D array, got shape %s" % (path, shape))
    nz, ny, nx = shape
    need = nx * ny * nz * int(descr[2:])
    return Volume(int16_from(payload[:need], descr), (nx, ny, nz))


NIFTI_TYPES = {2: "|u1", 4: "<i2", 256: "|i1"}


def read_nifti(path):
    """NIfTI-1 (single file .nii or .nii.gz) with an axis-aligned sform or qform."""
    opener = gzip.open if path.endswith(".gz") else open
    with opener(path, "rb") as f:
        data = f.read()
    if struct.unpack_from("<i", data, 0)[0] == 348:
        e = "<"
    elif struct.unpack_from(">i", data, 0)[0] == 348:
        e = ">"
    else:
        sys.exit("convert_scans: %s: not a NIfTI-1 header" % path)
    dim = struct.unpack_from(e + "8h", data, 40)
    datatype, bitpix = struct.unpack_from(e + "hh", data, 70)
    pixdim = struct.unpack_from(e + "8f", data, 76)
    vox_offset = int(struct.unpack_from(e + "f", data, 108)[0])
    scl_slope, scl_inter = struct.unpack_from(e + "ff", data, 112)
    sform_code = struct.unpack_from(e + "h", data, 254)[0]
    srow = [struct.unpack_from(e + "4f", data, 280 + 16 * r) for r in range(3)]
    if data[344:347] not in (b"n+1", b"ni1"):
        sys.exit("convert_scans: %s: bad NIfTI magic" % path)
    if dim[0] < 3 or any(d > 1 for d in dim[4:dim[0] + 1]):
        sys.exit("convert_scans: %s: only single 3D volumes are supported" % path)
    if datatype not in NIFTI_TYPES:
        sys.exit("convert_scans: %s: NIfTI datatype %d not supported" % (path, datatype))
    descr = NIFTI_TYPES[datatype]
    if descr[0] != "|" and e == ">":
        descr = ">" + descr[1:]
    nx, ny, nz = dim[1:4]
    need = nx * ny * nz * bitpix // 8
    vol = Volume(int16_from(data[vox_offset:vox_offset + need], descr), (nx, ny, nz))
    if sform_code > 0:
        affine = [list(r) for r in srow]
    else:
        # No sform: pixdim on the diagonal, no offset (qform rotation not handled).
        affine = [[pixdim[1], 0, 0, 0], [0, pixdim[2], 0, 0], [0, 0, pixdim[3], 0]]
    for r in range(3):
        for c in range(3):
            if r != c and abs(affine[r][c]) > 1e-6:
                sys.exit("convert_scans: %s: oblique affine not supported" % path)
    slope = scl_slope if scl_slope != 0.0 else 1.0   # 0 means "not set"
    return vol, affine, slope, scl_inter


def ras_to_lps(vol, affine):
    """Flip axes so that +x is patient left, +y posterior, +z superior (LPS).

    affine maps voxel indices to RAS mm. Returns (spacing, origin) where origin
    is the LPS position of the centre of voxel (0, 0, 0) after the flips.
    """
    want = (-1.0, -1.0, 1.0)     # LPS axis i points along want[i] * RAS axis i
    spacing, origin = [], []
    for i in range(3):
        step = affine[i][i]
        n = vol.dims[i]
        start = affine[i][3]
        if step * want[i] < 0:
            if i == 2:
                sys.exit("convert_scans: slices run superior to inferior; not supported")
            start = start + step * (n - 1)
            step = -step
            if i == 0:
                vol.flip_x()
            else:
                vol.flip_y()
        spacing.append(abs(step))
        origin.append(start * want[i])
    return spacing, origin


# ---- output ----

def value_range(vol):
    return [min(vol.voxels), max(vol.voxels)]


def write_scan(outdir, name, vol, meta, expected_sha):
    data = vol.le_bytes()
    digest = hashlib.sha256(data).hexdigest()
    info = {
        "dims": list(vol.dims),
        "spacing_mm": meta.pop("spacing_mm"),
        "origin_mm": meta.pop("origin_mm"),
        "rescale_slope": meta.pop("rescale_slope", 1.0),
        "rescale_intercept": meta.pop("rescale_intercept", 0.0),
        "modality": meta.pop("modality"),
        "source_package": meta.pop("source_package"),
        "source_path_in_package": meta.pop("source_path_in_package"),
        "license": meta.pop("license"),
        "dtype": "int16",
        "byte_order": "little",
        "layout": LAYOUT,
        "value_range": value_range(vol),
        "size_bytes": len(data),
        "sha256": digest,
    }
    info.update(meta)
    raw_path = os.path.join(outdir, name + ".raw")
    with open(raw_path + ".tmp", "wb") as f:
        f.write(data)
    os.replace(raw_path + ".tmp", raw_path)
    with open(os.path.join(outdir, name + ".json"), "w") as f:
        json.dump(info, f, indent=2)
        f.write("\n")
    ok = digest == expected_sha
    print("%-20s %s  %s" % (name, digest, "ok" if ok else "MISMATCH (expected %s)" % expected_sha))
    return ok


def convert_cranium(path, version):
    vol, plist = read_inv3(path)
    vol.flip_y()   # the source rows run posterior to anterior
    spacing = [float(s) for s in plist["spacing"]]
    meta = {
        "spacing_mm": spacing,
        "origin_mm": [0.0, 0.0, 0.0],
        "modality": plist.get("modality", "CT"),
        "source_package": "debian:invesalius-examples",
        "source_path_in_package": CRANIUM + " (gzip tar; member */matrix.dat, int16 LE, shape from main.plist)",
        "license": "GPL-2 (debian/copyright of invesalius-examples, Files: *; "
                   "Copyright 2008-2021 Centro de Tecnologia da Informacao Renato Archer)",
        "source_package_version": version,
        "install_command": "apt-get install -y invesalius-examples",
        "description": "Non-contrast head CT, '%s' (InVesalius sample); values already in HU "
                       "(-1024 = air)." % plist.get("name", "ProMED CT 0051"),
        "axes": "x: image columns as in source (left/right not recorded; assumed patient left "
                "as in DICOM axial); y: anterior->posterior (flipped from source rows); "
                "z: inferior->superior (skull base at z=0, vertex at top)",
        "origin_note": "origin not stored in source; set to 0",
    }
    if "window_level" in plist and "window_width" in plist:
        meta["window_center_width"] = [float(plist["window_level"]), float(plist["window_width"])]
    return vol, meta


def convert_stent(path, version):
    vol = read_npz(path)
    meta = {
        "spacing_mm": [1.0, 1.0, 1.0],
        "origin_mm": [0.0, 0.0, 0.0],
        "modality": "CT",
        "source_package": "debian:python3-imageio",
        "source_path_in_package": STENT + " (numpy npz, array arr_0)",
        "license": "BSD-2-Clause (debian/copyright of python3-imageio, Files: *; "
                   "Copyright 2015 imageio contributors)",
        "source_package_version": version,
        "install_command": "apt-get install -y python3-imageio",
        "description": "Contrast-enhanced abdominal CT angiography of an aorta with a bifurcated "
                       "stent graft (imageio: 'Volumetric image showing a stented abdominal "
                       "aorta'). Lumen, renal/iliac branches, stent wires, spine.",
        "spacing_note": "NOT stored in the source; 1 mm isotropic is an assumption (vertebral body "
                        "about 45 voxels wide fits ~1 mm). "
                        "Treat distances as approximate.",
        "values_note": "Looks like HU clipped to [0, 2000] and quantised to 33 levels in steps "
                       "of 62.5 (0, 62, 125, ... 1937, 2000); fat and air are 0, contrast-filled "
                       "lumen 312-437 (median 375), stent metal up to 2000.",
        "axes": "as in source: x columns (left/right not determinable), y anterior->posterior "
                "(spine at high y), z inferior->superior (iliac legs of the stent at low z)",
        "origin_note": "origin not stored in source; set to 0",
    }
    return vol, meta


def convert_colin(path, version):
    vol, affine, slope, inter = read_nifti(path)
    spacing, origin = ras_to_lps(vol, affine)
    meta = {
        "spacing_mm": spacing,
        "origin_mm": origin,
        "rescale_slope": slope,
        "rescale_intercept": inter,
        "modality": "MR",
        "source_package": "debian:mricron-data",
        "source_path_in_package": COLIN + " (NIfTI-1, uint8, sform RAS)",
        "license": "BSD-3-clause (debian/copyright of mricron-data, Files: *; Copyright "
                   "2006-2010 Chris Rorden); image is the MNI 'Colin 27' single-subject T1 average",
        "source_package_version": version,
        "install_command": "apt-get install -y mricron-data",
        "description": "T1-weighted MRI of a whole head (skull and scalp included), average of 27 "
                       "scans of one subject, in MNI space; uint8 values widened to int16.",
        "axes": "LPS: x -> patient left, y -> posterior, z -> superior (source i and j flipped); "
                "origin_mm is the LPS position of voxel (0,0,0)",
    }
    return vol, meta


# name, converter, package, package version the hash belongs to, sha256 of the .raw
SCANS = [
    ("ct_head_invesalius", convert_cranium, "invesalius-examples", "3.1.99998-4",
     "5ab64135b8b6ecd8115569b35ba1ee15e62949ace083165a22205641e9c309a7"),
    ("cta_aorta_stent", convert_stent, "python3-imageio", "2.4.1-5",
     "8431cfdc59600c1a6e2b68adeac61a8535d01cfdba236150b92101f984454da1"),
    ("mr_head_colin27", convert_colin, "mricron-data", "1.2.20211006+dfsg-4",
     "12acc7ed2890d2f6903fcacd2ca3ead87dd04b8a750f2d0fe9b8358af66befd8"),
]


def main():
    ap = argparse.ArgumentParser(description="Convert the real scans to raw + JSON.")
    ap.add_argument("outdir")
    ap.add_argument("--cranium", default=CRANIUM, help="path of Cranium.inv3")
    ap.add_argument("--stent", default=STENT, help="path of stent.npz")
    ap.add_argument("--colin", default=COLIN, help="path of ch2.nii.gz")
    ap.add_argument("--version", action="append", default=[], metavar="PKG=VER",
                    help="version of a source package, recorded in the JSON")
    ap.add_argument("--only", action="append", default=[], metavar="NAME",
                    help="convert only this scan (repeatable)")
    args = ap.parse_args()

    versions = dict(v.split("=", 1) for v in args.version)
    sources = {"ct_head_invesalius": args.cranium, "cta_aorta_stent": args.stent,
               "mr_head_colin27": args.colin}
    os.makedirs(args.outdir, exist_ok=True)
    all_ok = True
    for name, convert, pkg, known_version, sha in SCANS:
        if args.only and name not in args.only:
            continue
        version = versions.get(pkg, known_version)
        if version != known_version:
            print("%s: %s is version %s; the expected hash is for %s"
                  % (name, pkg, version, known_version))
        vol, meta = convert(sources[name], version)
        all_ok = write_scan(args.outdir, name, vol, meta, sha) and all_ok
    return 0 if all_ok else 1


if __name__ == "__main__":
    sys.exit(main())
