import sys

from lint import main

sys.exit(main.main(sys.argv[1:]))
