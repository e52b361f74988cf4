# What fish offers behind "rvd-lab r" and "rvd-lab run --sto".
cd empty; or exit 1
complete -C "rvd-lab r" | string match -q "run*"; or exit 1
complete -C "rvd-lab run --sto" | string match -q -- "--story*"; or exit 1
