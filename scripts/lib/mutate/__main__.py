import sys

from mutate import main

sys.exit(main.main(sys.argv[1:]))
