"""Runs bench/pdf_peer.sh: Imaging's multi-page TIFF to PDF beside img2pdf and
ImageMagick on the same 50-page bitonal file (run by bench/run.sh with the
build directory as argument)."""
import os
import subprocess
import sys

here = os.path.dirname(os.path.abspath(__file__))
build = sys.argv[1] if len(sys.argv) > 1 else "build-bench"
sys.exit(subprocess.call(["bash", os.path.join(here, "pdf_peer.sh"), build]))
