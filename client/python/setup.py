"""Only what pyproject.toml cannot say: the version is the C library's."""

import re
from pathlib import Path

from setuptools import setup

header = Path(__file__).resolve().parents[1] / "UgsClient.h"
setup(version=re.search(r'define UGS_CLIENT_VERSION "(.*)"', header.read_text("utf-8"))[1])
