#!/usr/bin/env bash
# Fetches three real scans from Debian packages and converts them to VX's
# raw + JSON form (signed 16-bit LE voxels, x fastest; see the .json sidecars).
#
#   scripts/get-data.sh [OUTDIR]      default: data/ in the checkout
#
# As root, installs the packages with apt-get. When a package's files are
# missing after that (dpkg may be told to skip /usr/share/doc), or when not
# root, it downloads the .deb with `apt-get download` and unpacks it with
# `dpkg -x` into OUTDIR/.debs instead, which needs no root.
# The data carries the packages' licences (GPL-2, BSD-2-Clause, BSD-3-clause);
# keep the .json beside each .raw and do not commit the files.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
out="${1:-$root/data}"
mkdir -p "$out"
out="$(cd "$out" && pwd)"

# package | file the converter reads
sources=(
  "invesalius-examples|/usr/share/doc/invesalius-examples/examples/Cranium.inv3"
  "python3-imageio|/usr/lib/python3/dist-packages/imageio/resources/images/stent.npz"
  "mricron-data|/usr/share/mricron/templates/ch2.nii.gz"
)

is_installed() {
  dpkg -s "$1" 2>/dev/null | grep -q '^Status: install ok installed'
}

if ! command -v python3 >/dev/null; then
  if [ "$(id -u)" -eq 0 ]; then
    apt-get update -q
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends python3
  else
    echo "get-data: python3 is missing. As root, run:" >&2
    echo "  apt-get install -y python3" >&2
    exit 1
  fi
fi

# Install what is missing (root only).
missing=()
for s in "${sources[@]}"; do
  pkg="${s%%|*}"
  is_installed "$pkg" || missing+=("$pkg")
done
updated=0
if [ "${#missing[@]}" -gt 0 ] && [ "$(id -u)" -eq 0 ]; then
  echo "get-data: installing ${missing[*]}"
  apt-get update -q
  updated=1
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# Resolve each source file; unpack the .deb where the file is not on the system.
debs="$out/.debs"
args=()
versions=()
for s in "${sources[@]}"; do
  pkg="${s%%|*}"
  file="${s#*|}"
  if [ -f "$file" ]; then
    versions+=(--version "$pkg=$(dpkg-query -W -f='${Version}' "$pkg" 2>/dev/null || echo unknown)")
  else
    mkdir -p "$debs/$pkg"
    deb="$(find "$debs/$pkg" -maxdepth 1 -name '*.deb' | head -n1)"
    if [ -z "$deb" ]; then
      echo "get-data: $file not on this system; downloading $pkg"
      if ! (cd "$debs/$pkg" && apt-get download "$pkg"); then
        if [ "$updated" -eq 0 ] && [ "$(id -u)" -eq 0 ]; then
          apt-get update -q
          updated=1
          (cd "$debs/$pkg" && apt-get download "$pkg")
        else
          echo "get-data: apt-get download $pkg failed (run 'apt-get update' as root first?)" >&2
          exit 1
        fi
      fi
      deb="$(find "$debs/$pkg" -maxdepth 1 -name '*.deb' | head -n1)"
      [ -n "$deb" ] || { echo "get-data: no .deb for $pkg" >&2; exit 1; }
    fi
    dpkg -x "$deb" "$debs/$pkg/root"
    versions+=(--version "$pkg=$(dpkg-deb -f "$deb" Version)")
    file="$debs/$pkg/root$file"
    [ -f "$file" ] || { echo "get-data: $file not found in $deb" >&2; exit 1; }
  fi
  case "$pkg" in
    invesalius-examples) args+=(--cranium "$file") ;;
    python3-imageio) args+=(--stent "$file") ;;
    mricron-data) args+=(--colin "$file") ;;
  esac
done

python3 "$here/convert_scans.py" "$out" "${args[@]}" "${versions[@]}"
rm -rf "$debs"
echo "get-data: scans in $out"
