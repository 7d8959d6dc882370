from harness import segment
