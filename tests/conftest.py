# SPDX-License-Identifier: BSD-2-Clause
from harness import segment
