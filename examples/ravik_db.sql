-- A small ravik_db of release 1.6.3: media, drives, jobs and params_fix.
create table media (
    id integer primary key,
    label varchar(32) not null,
    size_mb integer,
    expires varchar(19),
    obsolete varchar(10)
);
insert into media values
    (1, 'MON-0001', 400000, '2026-12-01 00:00:00', 'x'),
    (2, 'O''Brien weekly', 800000, NULL, NULL),
    (3, 'Bänder-Archiv', 1200000, '2027-06-30 23:59:59', 'y');

create table drives (
    id integer primary key,
    name varchar(32) not null,
    device varchar(64),
    status varchar(10)
);
insert into drives values
    (1, 'LTO-9 left', '/dev/nst0', 'online'),
    (2, 'LTO-9 right', '/dev/nst1', NULL);

create table jobs (
    id integer primary key,
    name varchar(32),
    client varchar(32),
    schedule varchar(16)
);
insert into jobs values
    (1, 'nightly', 'fileserver', 'daily 22:00'),
    (2, 'mail', 'mx1', NULL),
    (3, 'O''Reilly laptop', 'nb-07', 'weekly');

create table params_fix (
    version varchar(16),
    update_date varchar(12),
    kunde varchar(16)
);
insert into params_fix values ('1.6.3.20', '202601010000', 'QOR-RAVIK');
